#include <errno.h>
#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/ioctl.h>
#include <syslog.h>
#include <unistd.h>

#include <algorithm>
#include <cstring>
#include <random>
#include <vector>

#include "LogCapture.h"
#include "Restraint.h"
#include "base/UniqueFd.h"
#include "pipe/MessageFrame.h"

using sable_test::LogCapture;

namespace {

// The reader's lines are restrained: each case starts with every site free to print again.
void ForgetReaderSites() {
    sable_test::ForgetRestrainedSites({"MessageFrame.cpp", "MagicReceiver.cpp", "FrameBuffer.cpp"});
}

// The receive side of a real non-blocking pipe preloaded with `bytes`, read like a pipe's own
// reader does: one read(2) per Recv, giving the count, 0 at end of file, or -errno. The write
// end stays open only when asked (then an empty pipe would block instead of ending).
class PipeFeed : public MagicReceiver {
  public:
    explicit PipeFeed(const std::vector<uint8_t>& bytes, bool keepWriter = false) {
        int fds[2];
        EXPECT_EQ(pipe2(fds, O_CLOEXEC | O_NONBLOCK), 0);
        readEnd.Reset(fds[0]);
        writeEnd.Reset(fds[1]);
        if (!bytes.empty()) {
            EXPECT_EQ(write(fds[1], bytes.data(), bytes.size()),
                      static_cast<ssize_t>(bytes.size()));
        }
        if (!keepWriter) writeEnd.Reset();
    }
    int32_t Recv(void* buf, size_t len) override {
        if (buf == nullptr) return -1;
        ssize_t n = read(readEnd.Get(), buf, len);
        return n < 0 ? -errno : static_cast<int32_t>(n);
    }
    size_t Left() const {
        int n = -1;
        ioctl(readEnd.Get(), FIONREAD, &n);
        return static_cast<size_t>(n);
    }

  private:
    sable::UniqueFd readEnd;
    sable::UniqueFd writeEnd;
};

template <typename T>
void Append(std::vector<uint8_t>& out, T value) {
    const auto* p = reinterpret_cast<const uint8_t*>(&value);
    out.insert(out.end(), p, p + sizeof(value));
}

uint32_t SumOf(uint32_t id, uint32_t type, const std::vector<uint8_t>& payload) {
    uint32_t sum = id + type + static_cast<uint32_t>(payload.size()) + 0xA6B7C8D9u;
    for (uint8_t b : payload) sum += b;
    return sum;
}

// A frame put together field by field, apart from BuildFrame, so that the reader can be fed
// lengths and checksums the builder would never produce.
std::vector<uint8_t> Craft(uint32_t id, uint32_t type, uint32_t lenField,
                           const std::vector<uint8_t>& payload, uint32_t checksum) {
    std::vector<uint8_t> f;
    Append<uint32_t>(f, 0xA6B7C8D9u);
    Append(f, id);
    Append(f, type);
    Append(f, lenField);
    f.insert(f.end(), payload.begin(), payload.end());
    Append(f, checksum);
    Append<int32_t>(f, 100);
    Append<uint64_t>(f, 123456789u);
    return f;
}

std::vector<uint8_t> ValidFrame(uint32_t id, uint32_t type, const std::vector<uint8_t>& payload) {
    return Craft(id, type, static_cast<uint32_t>(payload.size()), payload,
                 SumOf(id, type, payload));
}

// BuildFrame's result for a request with `payload`, or its error code (then `frame` is empty).
int Build(const std::vector<uint8_t>& payload, uint32_t size, std::vector<uint8_t>& frame) {
    SabloRequest req{7, const_cast<uint8_t*>(payload.data()), size};
    OutMessage msg(7, req, 100);
    std::unique_ptr<char[]> buf;
    size_t len = 0;
    int ret = BuildFrame(msg, buf, len);
    if (ret == 0) frame.assign(buf.get(), buf.get() + len);
    return ret;
}

void ExpectMessage(const std::unique_ptr<InMessage>& msg, uint32_t id, uint32_t type,
                   const std::vector<uint8_t>& payload) {
    ASSERT_NE(msg, nullptr);
    EXPECT_EQ(msg->id, id);
    EXPECT_EQ(msg->type, type);
    ASSERT_EQ(msg->payloadLen, payload.size());
    EXPECT_EQ(memcmp(msg->GetData(), payload.data(), payload.size()), 0);
}

}  // namespace

TEST(MagicReceiver, BadFirstByteConsumesExactlyThatByte) {
    ForgetReaderSites();
    LogCapture cap;
    PipeFeed rx({0x00, 0xD9, 0xC8, 0xB7, 0xA6});
    EXPECT_EQ(rx.RecvMagic(), MagicReceiver::MAGIC_MISMATCH);
    EXPECT_EQ(rx.Left(), 4u);
    EXPECT_TRUE(cap.Contains("Receive magic error, received: 0, expected: 217, ret=1.\n"));
    // No scanning ahead: the next attempt starts right after the bad byte.
    EXPECT_EQ(rx.RecvMagic(), MagicReceiver::MAGIC_OK);
}

TEST(MagicReceiver, EndOfFileIsQuietBetweenFramesAndAnErrorInsideTheMagic) {
    ForgetReaderSites();
    LogCapture cap;
    PipeFeed empty({});
    EXPECT_EQ(empty.RecvMagic(), MagicReceiver::MAGIC_PEER_CLOSED);
    PipeFeed idle({}, true);  // nothing there yet: would block
    EXPECT_EQ(idle.RecvMagic(), MagicReceiver::MAGIC_RECV_ERROR);
    EXPECT_TRUE(cap.Lines().empty());  // info level only, which the logger drops

    PipeFeed cut({0xD9, 0xC8});
    EXPECT_EQ(cut.RecvMagic(), MagicReceiver::MAGIC_PEER_CLOSED);
    ASSERT_EQ(cap.Lines().size(), 1u);
    EXPECT_TRUE(cap.Contains("Received 0 when receiving magic, expected: 183.\n"));
    EXPECT_EQ(cap.Lines()[0].level, LOG_ERR);
}

TEST(Message, ChecksumOfOneByteFFIsA6B7C9DAAndEveryLengthSumsEveryByte) {
    std::vector<uint8_t> one{0xFF};
    SabloRequest req{1, one.data(), 1};
    EXPECT_EQ(OutMessage(1, req, 100).Checksum(), 0xA6B7C9DAu);
    // The sum runs in 16-byte steps with a tail: every length and alignment must add up alike.
    std::vector<uint8_t> bytes(4000 + 15);
    for (size_t i = 0; i < bytes.size(); ++i) bytes[i] = static_cast<uint8_t>(255 - i * 7);
    for (uint32_t offset : {0u, 1u, 15u}) {
        for (uint32_t len = 1; len <= 4000; len += (len < 70 ? 1 : 397)) {
            std::vector<uint8_t> payload(bytes.begin() + offset, bytes.begin() + offset + len);
            SabloRequest r{3, bytes.data() + offset, len};
            ASSERT_EQ(OutMessage(3, r, 100).Checksum(), SumOf(3, 0, payload))
                << "offset " << offset << " length " << len;
        }
    }
}

TEST(MessageFrame, BuiltFrameLaysOutTheFieldsAndReadsBack) {
    std::vector<uint8_t> payload{'a', 'b', 'c'};
    std::vector<uint8_t> frame;
    ASSERT_EQ(Build(payload, 3, frame), 0);
    std::vector<uint8_t> expected = Craft(7, 0, 3, payload, SumOf(7, 0, payload));
    ASSERT_EQ(frame.size(), 35u);
    // Everything up to the write time, which is the sender's clock.
    EXPECT_TRUE(std::equal(frame.begin(), frame.begin() + 27, expected.begin()));
    EXPECT_EQ(memcmp(frame.data(), MagicReceiver::MAGIC_ENUM, 4), 0);

    PipeFeed rx(frame);  // the whole frame in one write
    ExpectMessage(ReadFrame(rx, 3, "peer"), 7, 0, payload);
    EXPECT_EQ(rx.Left(), 0u);
}

TEST(MessageFrame, PayloadOfOneTo4000BytesIsTheRuleOnBothSides) {
    ForgetReaderSites();
    LogCapture cap;
    std::vector<uint8_t> payload(4001, 0x42);
    std::vector<uint8_t> frame;
    EXPECT_EQ(Build(payload, 0, frame), -EINVAL);
    EXPECT_EQ(Build(payload, 4001, frame), -EINVAL);
    EXPECT_TRUE(frame.empty());
    EXPECT_TRUE(cap.Lines().empty());  // the sender has refused and logged it already
    ASSERT_EQ(Build(payload, 4000, frame), 0);
    EXPECT_EQ(frame.size(), 4032u);

    // Two frames back to back: the reader takes exactly one at a time.
    std::vector<uint8_t> one{9};
    std::vector<uint8_t> bytes = ValidFrame(1, 1, one);
    payload.pop_back();
    std::vector<uint8_t> largest = ValidFrame(2, 0, payload);
    bytes.insert(bytes.end(), largest.begin(), largest.end());
    PipeFeed ok(bytes);
    ExpectMessage(ReadFrame(ok, 3, "peer"), 1, 1, one);
    EXPECT_EQ(ok.Left(), largest.size());
    ExpectMessage(ReadFrame(ok, 3, "peer"), 2, 0, payload);

    payload.push_back(0x42);
    PipeFeed tooLong(ValidFrame(1, 0, payload));
    EXPECT_EQ(ReadFrame(tooLong, 3, "peer"), nullptr);
    EXPECT_EQ(tooLong.Left(), 4001u + 16u);  // refused at the length, payload untouched
    EXPECT_TRUE(cap.Contains("Recv msg failed, received payloadLen = 4001, ret = 4\n"));

    ForgetReaderSites();
    PipeFeed empty(Craft(1, 0, 0, {}, SumOf(1, 0, {})));
    EXPECT_EQ(ReadFrame(empty, 3, "peer"), nullptr);
    EXPECT_TRUE(cap.Contains("Recv msg failed, received payloadLen should be 0, ret = -1\n"));
}

TEST(MessageFrame, DamagedOrTruncatedFrameYieldsNoMessage) {
    std::vector<uint8_t> payload{1, 2, 3};
    ForgetReaderSites();
    LogCapture cap;
    PipeFeed badSum(Craft(4, 0, 3, payload, SumOf(4, 0, payload) + 1));
    EXPECT_EQ(ReadFrame(badSum, 17, "remote_x"), nullptr);
    EXPECT_TRUE(cap.Contains(" for readFd(17) remote(remote_x)\n"));

    std::vector<uint8_t> badMagic = ValidFrame(1, 0, payload);
    badMagic[0] = 0;
    PipeFeed rx(badMagic);
    EXPECT_EQ(ReadFrame(rx, 3, "peer"), nullptr);
    EXPECT_EQ(rx.Left(), badMagic.size() - 1);

    const std::vector<uint8_t> frame = ValidFrame(2, 0, payload);
    for (size_t cut = 0; cut < frame.size(); ++cut) {
        ForgetReaderSites();
        cap.Clear();
        PipeFeed part(std::vector<uint8_t>(frame.begin(), frame.begin() + cut));
        EXPECT_EQ(ReadFrame(part, 3, "peer"), nullptr) << "cut at " << cut;
        ASSERT_FALSE(cap.Lines().empty()) << "cut at " << cut;
        EXPECT_EQ(cap.Lines().back().level, LOG_ERR);
    }
}

TEST(MessageFrame, ArbitraryBytesNeverCrashOrOverRead) {
    const unsigned seed = 20240611u;
    std::mt19937 rng(seed);
    std::uniform_int_distribution<int> byte(0, 255);
    std::uniform_int_distribution<int> pick(0, 99);
    size_t accepted = 0;
    for (int round = 0; round < 1000; ++round) {
        // Noise behind a magic now and then, or valid frames with a few bytes damaged or cut off.
        std::vector<uint8_t> bytes;
        if (pick(rng) < 30) {
            if (pick(rng) < 50) Append<uint32_t>(bytes, 0xA6B7C8D9u);
            for (int i = pick(rng) * 45; i > 0; --i)
                bytes.push_back(static_cast<uint8_t>(byte(rng)));
        } else {
            for (int f = 0; f < 1 + pick(rng) % 3; ++f) {
                std::vector<uint8_t> payload(1 + static_cast<size_t>(pick(rng)) * 40);
                for (auto& b : payload) b = static_cast<uint8_t>(byte(rng));
                auto frame = ValidFrame(static_cast<uint32_t>(round), f % 2, payload);
                bytes.insert(bytes.end(), frame.begin(), frame.end());
            }
            for (int flips = pick(rng) % 4; flips > 0; --flips) {
                bytes[static_cast<size_t>(pick(rng) * 997) % bytes.size()] =
                    static_cast<uint8_t>(byte(rng));
            }
            if (pick(rng) < 30) bytes.resize(bytes.size() - 1 - bytes.size() / 3);
        }
        PipeFeed rx(bytes);
        // Like a receive loop: keep reading while the reader makes progress.
        size_t left = rx.Left();
        for (int attempt = 0; attempt < 100 && left > 0; ++attempt) {
            auto msg = ReadFrame(rx, 3, "fuzz");
            if (msg) {
                ++accepted;
                ASSERT_GE(msg->payloadLen, 1u);
                ASSERT_LE(msg->payloadLen, 4000u);
                ASSERT_EQ(left - rx.Left(), 32u + msg->payloadLen);
            }
            if (rx.Left() == left) break;
            left = rx.Left();
        }
    }
    EXPECT_GT(accepted, 0u) << "seed " << seed;
}
