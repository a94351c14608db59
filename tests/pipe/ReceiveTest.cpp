// The receive path reads what a FIFO holds at once and takes the frame's fields from its buffer.
// Whatever the byte stream and however it is cut into writes, the requests delivered and the
// lines logged are those of a reader that reads every field from the FIFO.
#include <errno.h>
#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/epoll.h>
#include <sys/ioctl.h>
#include <unistd.h>

#include <cstring>
#include <random>
#include <regex>
#include <string>
#include <vector>

#include "LogCapture.h"
#include "PipeRig.h"
#include "Restraint.h"
#include "base/UniqueFd.h"
#include "log/run_time_record.h"
#include "pipe/FrameBuffer.h"
#include "pipe/MessageFrame.h"

using namespace pipe_test;

namespace {

using ByteVec = std::vector<uint8_t>;

template <typename T>
void Put(ByteVec& out, T value) {
    const auto* p = reinterpret_cast<const uint8_t*>(&value);
    out.insert(out.end(), p, p + sizeof(value));
}

// A frame field by field, with a length field and a checksum of the caller's choice.
ByteVec Frame(uint32_t id, uint32_t type, uint32_t lenField, const ByteVec& payload,
              int sumDelta = 0) {
    uint32_t sum = id + type + static_cast<uint32_t>(payload.size()) + 0xA6B7C8D9u;
    for (uint8_t b : payload) sum += b;
    ByteVec f;
    Put<uint32_t>(f, 0xA6B7C8D9u);
    Put(f, id);
    Put(f, type);
    Put(f, lenField);
    f.insert(f.end(), payload.begin(), payload.end());
    Put<uint32_t>(f, sum + static_cast<uint32_t>(sumDelta));
    Put<int32_t>(f, -1);
    Put<uint64_t>(f, 42);
    return f;
}

ByteVec Valid(uint32_t id, uint32_t type, size_t size) {
    ByteVec payload(size);
    for (size_t i = 0; i < size; ++i) payload[i] = static_cast<uint8_t>(id * 7 + i);
    return Frame(id, type, static_cast<uint32_t>(size), payload);
}

// Good frames among every way a frame can be wrong, ending in one cut short.
ByteVec MixedStream() {
    std::vector<ByteVec> parts = {Valid(1, 0, 5),
                                  {0x00},
                                  Valid(2, 1, 3),
                                  Frame(3, 0, 0, {}),
                                  Frame(4, 0, 4, {1, 2, 3, 4}, 1),
                                  Valid(5, 0, 64),
                                  {0xD9, 0xC8},
                                  Valid(6, 0, 9),
                                  Frame(7, 0, 4001, {9, 9, 9, 9}),
                                  Valid(8, 5, 2),
                                  Valid(9, 0, 100)};
    ByteVec stream;
    for (const auto& p : parts) stream.insert(stream.end(), p.begin(), p.end());
    ByteVec cut = Valid(10, 0, 30);
    stream.insert(stream.end(), cut.begin(), cut.begin() + 20);
    return stream;
}

// What a reader delivers and logs: the ids of the requests (type 0) it accepts, and its lines
// as "level file:line] text" with descriptor numbers left out, and the errno of a short read,
// which a read that succeeds leaves as the calls before it set it.
struct Outcome {
    std::vector<uint32_t> requests;
    std::vector<std::string> lines;
};

std::vector<std::string> Normalised(const sable_test::LogCapture& cap) {
    static const std::regex site(R"(\[([A-Za-z_]+\.cpp:\d+)\] (.*))");
    static const std::regex fd(R"(readFd\(\d+\))");
    static const std::regex shortRead(R"((instead of \d+, errno = )\d+)");
    std::vector<std::string> out;
    for (const auto& line : cap.Lines()) {
        std::smatch m;
        if (std::regex_search(line.text, m, site)) {
            out.push_back(std::to_string(line.level) + " " + m[1].str() + "] " +
                          std::regex_replace(std::regex_replace(m[2].str(), fd, "readFd(#)"),
                                             shortRead, "$1#"));
        }
    }
    return out;
}

void ForgetSites() {
    sable_test::ForgetRestrainedSites(
        {"MessageFrame.cpp", "MagicReceiver.cpp", "FrameBuffer.cpp", "SablePipeImpl.cpp"}, 900);
}

size_t Pending(int fd) {
    int n = 0;
    ioctl(fd, FIONREAD, &n);
    return static_cast<size_t>(n);
}

// The reference: one read(2) per field, straight from the FIFO, one frame at a time while the
// FIFO holds bytes.
class FieldReader : public MagicReceiver {
  public:
    FieldReader(int fd, std::string remote) : readFd(fd), remoteName(std::move(remote)) {}
    int32_t Recv(void* buf, size_t len) override {
        return RecvFromFifo(readFd, nullptr, buf, len, remoteName);
    }
    void Drain(Outcome& out) {
        while (Pending(readFd) > 0) {
            InMessage msg(0, 0, 0);
            if (ReadFrame(*this, msg, readFd, remoteName) && msg.type == 0) {
                out.requests.push_back(msg.id);
            }
        }
    }

  private:
    int readFd;
    std::string remoteName;
};

Outcome Reference(const ByteVec& stream, const std::vector<size_t>& cuts,
                  const std::string& remote) {
    int fds[2];
    EXPECT_EQ(pipe2(fds, O_NONBLOCK | O_CLOEXEC), 0);
    sable::UniqueFd readEnd(fds[0]), writeEnd(fds[1]);
    ForgetSites();
    sable_test::LogCapture cap;
    Outcome out;
    FieldReader reader(readEnd.Get(), remote);
    size_t from = 0;
    for (size_t to : cuts) {
        EXPECT_EQ(write(writeEnd.Get(), stream.data() + from, to - from),
                  static_cast<ssize_t>(to - from));
        reader.Drain(out);
        from = to;
    }
    out.lines = Normalised(cap);
    return out;
}

// A pipe of the rig whose receive side this test drives itself: it is open, out of the
// monitor, and its FIFO has an outside writer.
class DrivenPipe {
  public:
    explicit DrivenPipe(PipeRig& rig)
        : pipe(rig.Make(rig.Name("a"), rig.Name("b"), SABLO_MODE_CREATE, 0, recorder.Callback())) {
        EXPECT_EQ(pipe->TimedOpen(0), 0);
        rig.monitor.Remove(pipe->GetPipeFd());
        writer.Reset(open(pipe->GetReadFifoName().c_str(), O_WRONLY | O_NONBLOCK | O_CLOEXEC));
        EXPECT_TRUE(writer.Valid());
    }

    // `expected` requests are to be delivered.
    Outcome Run(const ByteVec& stream, const std::vector<size_t>& cuts, size_t expected) {
        ForgetSites();
        sable_test::LogCapture cap;
        const size_t seenBefore = recorder.Snapshot().size();
        size_t from = 0;
        for (size_t to : cuts) {
            EXPECT_EQ(write(writer.Get(), stream.data() + from, to - from),
                      static_cast<ssize_t>(to - from));
            // The monitor's part: an event while the FIFO holds bytes, again while frames wait.
            struct epoll_event ev {};
            ev.events = EPOLLIN;
            SableComm::EpollTimeRecord record;
            SablePipeImpl::ReceiveResult result;
            do {
                result = pipe->HandleEvent(ev, record);
            } while (result == SablePipeImpl::ReceiveResult::MORE ||
                     Pending(pipe->GetReadFd()) > 0);
            from = to;
        }
        Outcome out;
        out.lines = Normalised(cap);
        // Delivery runs on the pipe's worker: wait for what is due, then a moment for more.
        recorder.WaitForCount(seenBefore + expected);
        std::this_thread::sleep_for(std::chrono::milliseconds(expected == 0 ? 2 : 0));
        auto seen = recorder.Snapshot();
        for (size_t k = seenBefore; k < seen.size(); ++k) out.requests.push_back(seen[k].id);
        return out;
    }

    Recorder recorder;
    std::shared_ptr<SablePipeImpl> pipe;
    sable::UniqueFd writer;

};

}  // namespace

TEST(BufferedReceive, SameRequestsAndLinesAsAFieldByFieldReaderWhereverTheStreamIsCut) {
    PipeRig rig;
    DrivenPipe driven(rig);
    const std::string remote = rig.Name("b");
    const ByteVec stream = MixedStream();

    const Outcome whole = Reference(stream, {stream.size()}, remote);
    // Frame 6 goes with the partial magic before it: nothing resynchronises.
    EXPECT_EQ(whole.requests, (std::vector<uint32_t>{1, 5, 9}));
    EXPECT_FALSE(whole.lines.empty());

    // Two writes, cut at every offset.
    for (size_t cut = 0; cut <= stream.size(); ++cut) {
        const std::vector<size_t> cuts = {cut, stream.size()};
        const Outcome expected = Reference(stream, cuts, remote);
        const Outcome got = driven.Run(stream, cuts, expected.requests.size());
        ASSERT_EQ(got.requests, expected.requests) << "cut at " << cut;
        ASSERT_EQ(got.lines, expected.lines) << "cut at " << cut;
    }
    // Several writes at random places, with frames of every size up to the largest.
    std::mt19937 rng(11);
    for (int round = 0; round < 50; ++round) {
        ByteVec mixed = stream;
        ByteVec large = Valid(20 + round, 0, 1 + rng() % 4000);
        mixed.insert(mixed.begin() + static_cast<long>(rng() % 40), large.begin(), large.end());
        std::vector<size_t> cuts;
        for (size_t at = 0; at < mixed.size(); at += 1 + rng() % 700) cuts.push_back(at);
        cuts.push_back(mixed.size());
        const Outcome expected = Reference(mixed, cuts, remote);
        const Outcome got = driven.Run(mixed, cuts, expected.requests.size());
        ASSERT_EQ(got.requests, expected.requests) << "round " << round;
        ASSERT_EQ(got.lines, expected.lines) << "round " << round;
    }
}
