#include <errno.h>
#include <fcntl.h>
#include <gtest/gtest.h>
#include <syslog.h>
#include <time.h>
#include <unistd.h>

#include <cstring>
#include <random>
#include <string>
#include <vector>

#include "FrameSources.h"
#include "LogCapture.h"
#include "base/UniqueFd.h"
#include "pipe/MessageFrame.h"

using sable_test::ByteReceiver;
using sable_test::FdReceiver;
using sable_test::LogCapture;

namespace {

uint64_t NowMicros() {
    struct timespec ts {};
    clock_gettime(CLOCK_MONOTONIC, &ts);
    return static_cast<uint64_t>(ts.tv_sec) * 1000000u + static_cast<uint64_t>(ts.tv_nsec) / 1000u;
}

template <typename T>
void Append(std::vector<uint8_t>& out, T value) {
    const auto* p = reinterpret_cast<const uint8_t*>(&value);
    out.insert(out.end(), p, p + sizeof(value));
}

template <typename T>
T At(const char* buf, size_t offset) {
    T value;
    memcpy(&value, buf + offset, sizeof(value));
    return value;
}

uint32_t SumOf(uint32_t id, uint32_t type, uint32_t len, const std::vector<uint8_t>& payload) {
    uint32_t sum = id + type + len;
    for (uint8_t b : payload) sum += b;
    return sum + 0xA6B7C8D9u;
}

// A frame put together field by field, independently of BuildFrame, so that the reader can be
// fed lengths and checksums the builder would never produce.
std::vector<uint8_t> Craft(uint32_t id, uint32_t type, uint32_t lenField,
                           const std::vector<uint8_t>& payload, uint32_t checksum,
                           int32_t timeout = 100, uint64_t writeTime = 123456789) {
    std::vector<uint8_t> f;
    Append<uint32_t>(f, 0xA6B7C8D9u);
    Append(f, id);
    Append(f, type);
    Append(f, lenField);
    f.insert(f.end(), payload.begin(), payload.end());
    Append(f, checksum);
    Append(f, timeout);
    Append(f, writeTime);
    return f;
}

std::vector<uint8_t> ValidFrame(uint32_t id, uint32_t type, const std::vector<uint8_t>& payload) {
    uint32_t len = static_cast<uint32_t>(payload.size());
    return Craft(id, type, len, payload, SumOf(id, type, len, payload));
}

std::vector<uint8_t> Built(OutMessage& msg) {
    std::unique_ptr<char[]> buf;
    size_t len = 0;
    EXPECT_EQ(BuildFrame(msg, buf, len), 0);
    if (!buf) return {};
    return std::vector<uint8_t>(buf.get(), buf.get() + len);
}

void ExpectMessage(const std::unique_ptr<InMessage>& msg, uint32_t id, uint32_t type,
                   const std::vector<uint8_t>& payload) {
    ASSERT_NE(msg, nullptr);
    EXPECT_EQ(msg->id, id);
    EXPECT_EQ(msg->type, type);
    ASSERT_EQ(msg->payloadLen, payload.size());
    const uint8_t* data = static_cast<const Message&>(*msg).GetData();
    ASSERT_NE(data, nullptr);
    EXPECT_EQ(memcmp(data, payload.data(), payload.size()), 0);
    EXPECT_EQ(msg->checksum, SumOf(id, type, msg->payloadLen, payload));
}

struct Pipe {
    sable::UniqueFd readEnd;
    sable::UniqueFd writeEnd;
    Pipe() {
        int fds[2];
        if (pipe2(fds, O_CLOEXEC) == 0) {
            readEnd.Reset(fds[0]);
            writeEnd.Reset(fds[1]);
        }
    }
};

}  // namespace

TEST(BuildFrame, WritesEveryFieldInPlace) {
    std::vector<uint8_t> payload{'a', 'b', 'c'};
    SabloRequest req{0x01020304u, payload.data(), 3};
    OutMessage msg(0x01020304u, req, 1500);
    std::unique_ptr<char[]> buf;
    size_t len = 0;
    uint64_t before = NowMicros();
    ASSERT_EQ(BuildFrame(msg, buf, len), 0);
    uint64_t after = NowMicros();
    ASSERT_EQ(len, 35u);
    const char* f = buf.get();
    EXPECT_EQ(memcmp(f, MagicReceiver::MAGIC_ENUM, 4), 0);
    EXPECT_EQ(At<uint32_t>(f, 4), 0x01020304u);
    EXPECT_EQ(At<uint32_t>(f, 8), 0u);
    EXPECT_EQ(At<uint32_t>(f, 12), 3u);
    EXPECT_EQ(memcmp(f + 16, "abc", 3), 0);
    EXPECT_EQ(At<uint32_t>(f, 19), SumOf(0x01020304u, 0, 3, payload));
    EXPECT_EQ(msg.checksum, At<uint32_t>(f, 19));
    EXPECT_EQ(At<int32_t>(f, 23), 1500);
    uint64_t written = At<uint64_t>(f, 27);
    EXPECT_GE(written, before);
    EXPECT_LE(written, after);
}

TEST(BuildFrame, ResponseCarriesTypeOneAndNoTimeout) {
    std::vector<uint8_t> payload{7};
    SabloResponse rsp{5, payload.data(), 1};
    OutMessage msg(5, rsp);
    std::vector<uint8_t> frame = Built(msg);
    ASSERT_EQ(frame.size(), 33u);
    const char* f = reinterpret_cast<const char*>(frame.data());
    EXPECT_EQ(At<uint32_t>(f, 8), 1u);
    EXPECT_EQ(At<uint32_t>(f, 21), 0xFFFFFFFFu);
}

TEST(BuildFrame, LargestPayloadMakesA4032ByteFrame) {
    std::vector<uint8_t> payload(4000, 0x11);
    SabloRequest req{1, payload.data(), 4000};
    OutMessage msg(1, req, -1);
    EXPECT_EQ(Built(msg).size(), 4032u);
}

TEST(BuildFrame, InvalidSizeIsRefusedWithoutALine) {
    std::vector<uint8_t> payload(4001, 0x22);
    LogCapture cap;
    for (uint32_t size : {0u, 4001u, 0xFFFFFFFFu}) {
        SabloRequest req{1, payload.data(), size};
        OutMessage msg(1, req, 10);
        std::unique_ptr<char[]> buf;
        size_t len = 99;
        EXPECT_EQ(BuildFrame(msg, buf, len), -EINVAL) << size;
        EXPECT_EQ(buf, nullptr);
        EXPECT_EQ(len, 99u);
    }
    EXPECT_TRUE(cap.Lines().empty());
}

TEST(BuildFrame, NullPayloadIsRefusedWithALine) {
    LogCapture cap;
    SabloRequest req{1, nullptr, 5};
    OutMessage msg(1, req, 10);
    std::unique_ptr<char[]> buf;
    size_t len = 0;
    EXPECT_EQ(BuildFrame(msg, buf, len), -EINVAL);
    EXPECT_EQ(buf, nullptr);
    ASSERT_TRUE(cap.Contains("Send msg data ptr is null\n"));
    EXPECT_EQ(cap.Lines().at(0).level, LOG_ERR);
}

TEST(ReadFrame, BuiltFrameTravelsInOneWriteAndReadsBack) {
    Pipe p;
    ASSERT_TRUE(p.readEnd.Valid());
    for (uint32_t size : {1u, 100u, 4000u}) {
        std::vector<uint8_t> payload(size);
        for (uint32_t i = 0; i < size; ++i) payload[i] = static_cast<uint8_t>(i * 7 + 3);
        SabloRequest req{size + 10, payload.data(), size};
        OutMessage msg(size + 10, req, 300);
        std::unique_ptr<char[]> buf;
        size_t len = 0;
        ASSERT_EQ(BuildFrame(msg, buf, len), 0);
        ASSERT_EQ(len, 32u + size);
        ASSERT_EQ(write(p.writeEnd.Get(), buf.get(), len), static_cast<ssize_t>(len));

        FdReceiver rx(p.readEnd.Get());
        LogCapture cap;
        auto in = ReadFrame(rx, p.readEnd.Get(), "peer");
        ExpectMessage(in, size + 10, 0, payload);
        EXPECT_TRUE(cap.Lines().empty());
    }
}

TEST(ReadFrame, ConsumesExactlyOneFrame) {
    std::vector<uint8_t> a{1, 2, 3};
    std::vector<uint8_t> b(4000, 0xEE);
    std::vector<uint8_t> bytes = ValidFrame(10, 0, a);
    size_t first = bytes.size();
    std::vector<uint8_t> second = ValidFrame(11, 1, b);
    bytes.insert(bytes.end(), second.begin(), second.end());

    ByteReceiver rx(bytes);
    ExpectMessage(ReadFrame(rx, 3, "peer"), 10, 0, a);
    EXPECT_EQ(rx.Consumed(), first);
    ExpectMessage(ReadFrame(rx, 3, "peer"), 11, 1, b);
    EXPECT_EQ(rx.Left(), 0u);
}

TEST(ReadFrame, LargestPayloadIsAcceptedOneMoreIsRefusedAtTheLength) {
    std::vector<uint8_t> payload(4000, 0x42);
    ByteReceiver ok(ValidFrame(1, 0, payload));
    ExpectMessage(ReadFrame(ok, 3, "peer"), 1, 0, payload);

    payload.push_back(0x42);
    LogCapture cap;
    ByteReceiver tooLong(ValidFrame(1, 0, payload));
    EXPECT_EQ(ReadFrame(tooLong, 3, "peer"), nullptr);
    EXPECT_TRUE(cap.Contains("Recv msg failed, received payloadLen = 4001, ret = 4\n"));
    EXPECT_EQ(tooLong.Consumed(), 16u);  // the payload is not touched
}

TEST(ReadFrame, ZeroLengthFrameIsDropped) {
    LogCapture cap;
    ByteReceiver rx(Craft(1, 0, 0, {}, SumOf(1, 0, 0, {})));
    EXPECT_EQ(ReadFrame(rx, 3, "peer"), nullptr);
    EXPECT_TRUE(cap.Contains("Recv msg failed, received payloadLen should be 0, ret = -1\n"));
    EXPECT_EQ(rx.Consumed(), 16u);
}

TEST(ReadFrame, ChecksumMismatchIsRefusedAndNamesTheSource) {
    std::vector<uint8_t> payload{1, 2, 3};
    uint32_t good = SumOf(4, 0, 3, payload);
    LogCapture cap;
    ByteReceiver rx(Craft(4, 0, 3, payload, good + 1));
    EXPECT_EQ(ReadFrame(rx, 17, "remote_x"), nullptr);
    std::string line = "Recv msg failed, send checksum = " + std::to_string(good + 1) +
                       ", but recv checksum = " + std::to_string(good) +
                       " for readFd(17) remote(remote_x)\n";
    EXPECT_TRUE(cap.Contains(line)) << (cap.Lines().empty() ? "" : cap.Lines()[0].text);
}

TEST(ReadFrame, BadMagicEndsTheAttemptAfterOneByte) {
    std::vector<uint8_t> bytes = ValidFrame(1, 0, {9});
    bytes[0] = 0x00;
    LogCapture cap;
    ByteReceiver rx(bytes);
    EXPECT_EQ(ReadFrame(rx, 3, "peer"), nullptr);
    EXPECT_EQ(rx.Consumed(), 1u);
    EXPECT_TRUE(cap.Contains("RecvMagic, result != MAGIC_OK, result=1.\n"));
}

TEST(ReadFrame, EveryCutOfAFrameYieldsNothingWithTheFieldsLine) {
    const std::vector<uint8_t> payload{5, 6, 7};
    const std::vector<uint8_t> frame = ValidFrame(2, 0, payload);
    ASSERT_EQ(frame.size(), 35u);
    auto expectedLine = [](size_t cut) -> std::string {
        if (cut == 0) return "RecvMagic, result != MAGIC_OK, result=2.\n";
        if (cut < 4) return "RecvMagic, result != MAGIC_OK, result=2.\n";
        if (cut < 8) return "Recv msg failed, received id = ";
        if (cut < 12) return "Recv msg failed, received type = ";
        if (cut < 16) return "Recv msg failed, received payloadLen = ";
        if (cut < 19) return "Recv msg failed, received payloadLen should be 3, ret = ";
        if (cut < 23) return "Recv msg failed, received checksum = ";
        if (cut < 27) return "Recv msg failed, received timeout = ";
        return "Recv msg failed, received writeStartTime = ";
    };
    for (size_t cut = 0; cut < frame.size(); ++cut) {
        LogCapture cap;
        ByteReceiver rx(std::vector<uint8_t>(frame.begin(), frame.begin() + cut));
        EXPECT_EQ(ReadFrame(rx, 3, "peer"), nullptr) << cut;
        EXPECT_TRUE(cap.Contains(expectedLine(cut))) << "cut at " << cut;
    }
}

TEST(ReadFrame, FieldCutAtEndOfFileReportsTheReadResult) {
    // A field that meets end of file right at its start reports 0; one cut in its middle is a
    // short read.
    const std::vector<uint8_t> frame = ValidFrame(2, 0, {1});
    LogCapture cap;
    ByteReceiver atStart(std::vector<uint8_t>(frame.begin(), frame.begin() + 4));
    EXPECT_EQ(ReadFrame(atStart, 3, "peer"), nullptr);
    EXPECT_TRUE(cap.Contains("Recv msg failed, received id = 0, ret = 0\n"));
    ByteReceiver inside(std::vector<uint8_t>(frame.begin(), frame.begin() + 23));
    EXPECT_EQ(ReadFrame(inside, 3, "peer"), nullptr);
    EXPECT_TRUE(cap.Contains("Recv msg failed, received timeout = "));
    EXPECT_TRUE(cap.Contains(", ret = -1\n"));
}

TEST(ReadFrame, TruncatedFrameOnARealPipeYieldsNothing) {
    std::vector<uint8_t> payload(50, 0x33);
    SabloRequest req{8, payload.data(), 50};
    OutMessage msg(8, req, 10);
    std::vector<uint8_t> frame = Built(msg);
    Pipe p;
    ASSERT_TRUE(p.readEnd.Valid());
    ASSERT_EQ(write(p.writeEnd.Get(), frame.data(), 40), 40);
    p.writeEnd.Reset();
    FdReceiver rx(p.readEnd.Get());
    LogCapture cap;
    EXPECT_EQ(ReadFrame(rx, p.readEnd.Get(), "peer"), nullptr);
    EXPECT_TRUE(cap.Contains("Recv msg failed, received payloadLen should be 50, ret = -1\n"));
}

TEST(ReadFrame, ArbitraryBytesNeverCrashOrOverRead) {
    const unsigned seed = 20240611u;
    std::mt19937 rng(seed);
    std::uniform_int_distribution<int> byte(0, 255);
    std::uniform_int_distribution<int> pick(0, 99);
    size_t accepted = 0;
    for (int round = 0; round < 3000; ++round) {
        std::vector<uint8_t> bytes;
        int kind = pick(rng);
        if (kind < 30) {
            // Pure noise, sometimes behind a magic so that the header is parsed too.
            size_t n = static_cast<size_t>(pick(rng)) * 45;
            if (kind < 15) Append<uint32_t>(bytes, 0xA6B7C8D9u);
            for (size_t i = 0; i < n; ++i) bytes.push_back(static_cast<uint8_t>(byte(rng)));
        } else {
            // Valid frames, some with a few bytes damaged or cut off.
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
        ByteReceiver rx(bytes);
        // Like a receive loop: keep reading while the reader makes progress.
        for (int attempt = 0; attempt < 200 && rx.Left() > 0; ++attempt) {
            size_t before = rx.Consumed();
            auto msg = ReadFrame(rx, 3, "fuzz");
            ASSERT_LE(rx.Consumed(), bytes.size());
            if (msg) {
                ++accepted;
                ASSERT_GE(msg->payloadLen, 1u);
                ASSERT_LE(msg->payloadLen, 4000u);
                EXPECT_EQ(rx.Consumed() - before, 32u + msg->payloadLen);
                ASSERT_NE(static_cast<const Message&>(*msg).GetData(), nullptr);
            }
            if (rx.Consumed() == before) break;
        }
    }
    EXPECT_GT(accepted, 0u) << "seed " << seed;
}
