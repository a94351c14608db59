#include <gtest/gtest.h>

#include <cstdint>
#include <cstring>
#include <vector>

#include "pipe/MagicReceiver.h"
#include "pipe/Message.h"

namespace {

SabloRequest Request(uint32_t id, std::vector<uint8_t>& payload) {
    return SabloRequest{id, payload.data(), static_cast<uint32_t>(payload.size())};
}

}  // namespace

TEST(Message, ConstantsDescribeTheWireFormat) {
    EXPECT_EQ(Message::MAX_PAYLOAD_LEN, 4000u);
    EXPECT_EQ(MagicReceiver::MAGIC, 0xA6B7C8D9u);
    uint32_t magic = MagicReceiver::MAGIC;
    EXPECT_EQ(memcmp(&magic, MagicReceiver::MAGIC_ENUM, sizeof(magic)), 0);
    const uint8_t expected[4] = {0xD9, 0xC8, 0xB7, 0xA6};
    EXPECT_EQ(memcmp(MagicReceiver::MAGIC_ENUM, expected, sizeof(expected)), 0);
}

TEST(Message, ChecksumOfOneByteFFIsA6B7C9DA) {
    std::vector<uint8_t> payload{0xFF};
    SabloRequest req = Request(1, payload);
    OutMessage out(1, req, 100);
    EXPECT_EQ(out.checksum, 0u);
    EXPECT_EQ(out.Checksum(), 0xA6B7C9DAu);
    EXPECT_EQ(out.checksum, 0xA6B7C9DAu);

    InMessage in(1, 0, 1);
    in.GetData()[0] = 0xFF;
    EXPECT_EQ(in.Checksum(), 0xA6B7C9DAu);
}

TEST(Message, ChecksumWrapsAndIgnoresTimeoutAndByteOrder) {
    std::vector<uint8_t> payload(4000, 0xFF);
    SabloRequest req = Request(0xFFFFFFF0u, payload);
    OutMessage a(0xFFFFFFF0u, req, 5);
    OutMessage b(0xFFFFFFF0u, req, -7);
    uint32_t expected = 0xFFFFFFF0u + 0u + 4000u + 4000u * 255u + 0xA6B7C8D9u;
    EXPECT_EQ(a.Checksum(), expected);
    EXPECT_EQ(b.Checksum(), expected);

    // A plain sum: swapping bytes goes unnoticed, changing one does not.
    std::vector<uint8_t> p1{1, 2, 3};
    std::vector<uint8_t> p2{3, 2, 1};
    std::vector<uint8_t> p3{1, 2, 4};
    OutMessage m1(9, Request(9, p1), 0);
    OutMessage m2(9, Request(9, p2), 0);
    OutMessage m3(9, Request(9, p3), 0);
    EXPECT_EQ(m1.Checksum(), m2.Checksum());
    EXPECT_NE(m1.Checksum(), m3.Checksum());
}

TEST(Message, ChecksumWithoutPayloadBufferCountsOnlyTheHeader) {
    InMessage in(3, 1, 2);  // buffer not asked for yet
    EXPECT_EQ(in.Checksum(), 3u + 1u + 2u + 0xA6B7C8D9u);
    EXPECT_EQ(static_cast<const Message&>(in).GetData(), nullptr);  // Checksum allocated nothing
}

TEST(Message, SizeRuleAcceptsOneTo4000Bytes) {
    EXPECT_FALSE(InMessage(1, 0, 0).SizeValid());
    EXPECT_TRUE(InMessage(1, 0, 1).SizeValid());
    EXPECT_TRUE(InMessage(1, 0, 4000).SizeValid());
    EXPECT_FALSE(InMessage(1, 0, 4001).SizeValid());
    EXPECT_FALSE(InMessage(1, 0, 4064).SizeValid());
    EXPECT_FALSE(InMessage(1, 0, 0xFFFFFFFFu).SizeValid());

    InMessage big(1, 0, 4000);
    EXPECT_EQ(big.OverheadSize(), 32u);
    EXPECT_EQ(big.Size(), 4032u);
    EXPECT_EQ(InMessage(1, 0, 0xFFFFFFFFu).Size(), 0xFFFFFFFFull + 32u);
}

TEST(Message, OutMessagesCarryTypeTimeoutAndCallersPayload) {
    std::vector<uint8_t> payload{1, 2, 3, 4};
    SabloRequest req = Request(77, payload);
    OutMessage request(77, req, 2500);
    EXPECT_EQ(request.id, 77u);
    EXPECT_EQ(request.type, 0u);
    EXPECT_EQ(request.payloadLen, 4u);
    EXPECT_EQ(request.timeout, 2500);
    EXPECT_EQ(request.GetData(), payload.data());

    SabloResponse rsp{78, payload.data(), 3};
    OutMessage response(78, rsp);
    EXPECT_EQ(response.id, 78u);
    EXPECT_EQ(response.type, 1u);
    EXPECT_EQ(response.payloadLen, 3u);
    EXPECT_EQ(response.timeout, -1);
    EXPECT_EQ(response.GetData(), payload.data());
}

TEST(Message, InMessageAllocatesOnceAndOnlyForAValidSize) {
    InMessage ok(1, 0, 10);
    uint8_t* first = ok.GetData();
    ASSERT_NE(first, nullptr);
    EXPECT_EQ(ok.GetData(), first);
    EXPECT_EQ(static_cast<const Message&>(ok).GetData(), first);

    InMessage empty(1, 0, 0);
    EXPECT_EQ(empty.GetData(), nullptr);
    InMessage tooBig(1, 0, 4001);
    EXPECT_EQ(tooBig.GetData(), nullptr);
}

TEST(Message, ReleaseDataHandsTheArrayOver) {
    InMessage in(1, 0, 8);
    uint8_t* data = in.GetData();
    ASSERT_NE(data, nullptr);
    memset(data, 0x5A, 8);
    uint8_t* taken = in.ReleaseData();
    EXPECT_EQ(taken, data);
    EXPECT_EQ(static_cast<const Message&>(in).GetData(), nullptr);
    EXPECT_EQ(in.ReleaseData(), nullptr);
    EXPECT_EQ(taken[7], 0x5A);  // still valid after the message let go of it
    delete[] taken;
}
