#include <errno.h>
#include <fcntl.h>
#include <gtest/gtest.h>
#include <syslog.h>
#include <unistd.h>

#include <vector>

#include "FrameSources.h"
#include "LogCapture.h"
#include "base/UniqueFd.h"
#include "pipe/MagicReceiver.h"

using sable_test::ByteReceiver;
using sable_test::FdReceiver;
using sable_test::LogCapture;

TEST(MagicReceiver, FourMagicBytesAreAcceptedSilently) {
    LogCapture cap;
    ByteReceiver rx({0xD9, 0xC8, 0xB7, 0xA6, 0x01});
    EXPECT_EQ(rx.RecvMagic(), MagicReceiver::MAGIC_OK);
    EXPECT_EQ(rx.Consumed(), 4u);
    EXPECT_EQ(rx.Calls(), 4u);  // one byte per read
    EXPECT_TRUE(cap.Lines().empty());
}

TEST(MagicReceiver, BadFirstByteConsumesExactlyThatByte) {
    LogCapture cap;
    ByteReceiver rx({0x00, 0xD9, 0xC8, 0xB7, 0xA6});
    EXPECT_EQ(rx.RecvMagic(), MagicReceiver::MAGIC_MISMATCH);
    EXPECT_EQ(rx.Consumed(), 1u);
    EXPECT_TRUE(cap.Contains("Receive magic error, received: 0, expected: 217, ret=1.\n"));
    EXPECT_EQ(cap.Lines().at(0).level, LOG_ERR);
    // No scanning ahead: the next attempt starts right after the bad byte.
    EXPECT_EQ(rx.RecvMagic(), MagicReceiver::MAGIC_OK);
}

TEST(MagicReceiver, MismatchLaterInTheMagicStopsAtThatByte) {
    LogCapture cap;
    ByteReceiver rx({0xD9, 0xC8, 0x42, 0xA6});
    EXPECT_EQ(rx.RecvMagic(), MagicReceiver::MAGIC_MISMATCH);
    EXPECT_EQ(rx.Consumed(), 3u);
    EXPECT_TRUE(cap.Contains("Receive magic error, received: 66, expected: 183, ret=1.\n"));
}

TEST(MagicReceiver, EndOfFileBetweenFramesIsNotAnError) {
    LogCapture cap;
    ByteReceiver rx({});
    EXPECT_EQ(rx.RecvMagic(), MagicReceiver::MAGIC_PEER_CLOSED);
    EXPECT_TRUE(cap.Lines().empty());  // info level only, which the logger drops

    int fds[2];
    ASSERT_EQ(pipe2(fds, O_CLOEXEC), 0);
    sable::UniqueFd readEnd(fds[0]);
    close(fds[1]);
    FdReceiver fdRx(readEnd.Get());
    EXPECT_EQ(fdRx.RecvMagic(), MagicReceiver::MAGIC_PEER_CLOSED);
    EXPECT_TRUE(cap.Lines().empty());
}

TEST(MagicReceiver, EndOfFileInsideTheMagicIsAnError) {
    LogCapture cap;
    ByteReceiver rx({0xD9, 0xC8});
    EXPECT_EQ(rx.RecvMagic(), MagicReceiver::MAGIC_PEER_CLOSED);
    EXPECT_EQ(rx.Consumed(), 2u);
    ASSERT_TRUE(cap.Contains("Received 0 when receiving magic, expected: 183.\n"));
    EXPECT_EQ(cap.Lines().at(0).level, LOG_ERR);
}

TEST(MagicReceiver, WouldBlockIsQuietOtherErrorsAreLogged) {
    int fds[2];
    ASSERT_EQ(pipe2(fds, O_CLOEXEC | O_NONBLOCK), 0);
    sable::UniqueFd readEnd(fds[0]);
    sable::UniqueFd writeEnd(fds[1]);
    {
        LogCapture cap;
        FdReceiver rx(readEnd.Get());
        EXPECT_EQ(rx.RecvMagic(), MagicReceiver::MAGIC_RECV_ERROR);  // empty, non-blocking
        ASSERT_EQ(write(writeEnd.Get(), MagicReceiver::MAGIC_ENUM, 2), 2);
        EXPECT_EQ(rx.RecvMagic(), MagicReceiver::MAGIC_RECV_ERROR);  // would block at byte 3
        EXPECT_TRUE(cap.Lines().empty());
    }
    {
        LogCapture cap;
        ByteReceiver rx({0xD9}, -EIO);
        EXPECT_EQ(rx.RecvMagic(), MagicReceiver::MAGIC_RECV_ERROR);
        EXPECT_TRUE(cap.Contains("Receive magic error, received: 0, expected: 200, ret=-5.\n"));
    }
}
