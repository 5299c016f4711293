#include <cstdio>
#include <string>
#include <sys/socket.h>
#include <unistd.h>

#include <gtest/gtest.h>

#include "capture.h"
#include "error_log.h"

static int flushes_of_stderr;

extern "C" {

int __real_fflush(FILE *stream);
int __wrap_fflush(FILE *stream);

int __wrap_fflush(FILE *stream)
{
    if (stream == stderr)
        flushes_of_stderr++;
    return __real_fflush(stream);
}

} // extern "C"

TEST(ErrorLog, TagIsNeverAssigned)
{
    EXPECT_EQ(log_tag, nullptr);
}

TEST(ErrorLog, WritesPrefixMessageAndNameOnOneLineOfStandardError)
{
    const Captured captured =
        capture([] { log_error("osd_open_osd", "failed. errno=0x%08X", 0x81E03246u); });

    EXPECT_EQ(captured.err, "ERR:#qm7osd:[(null)]=failed. errno=0x81E03246(osd_open_osd)\n");
    EXPECT_EQ(captured.out, "");
}

TEST(ErrorLog, MessageWithALineEndPutsTheNameOnALineOfItsOwn)
{
    const Captured captured = capture([] { log_error("run", "failed\n"); });

    EXPECT_EQ(captured.err, "ERR:#qm7osd:[(null)]=failed\n(run)\n");
}

TEST(ErrorLog, ShowsAnAssignedTag)
{
    log_tag = "CAM";
    const Captured captured = capture([] { log_error("run", "failed"); });
    log_tag = nullptr;

    EXPECT_EQ(captured.err, "ERR:#qm7osd:[CAM]=failed(run)\n");
}

TEST(ErrorLog, PercentSignsInArgumentsAreText)
{
    const Captured captured = capture([] { log_error("100%s", "%s", "%n%d"); });

    EXPECT_EQ(captured.err, "ERR:#qm7osd:[(null)]=%n%d(100%s)\n");
}

TEST(ErrorLog, MessageThatCannotBeFormattedLeavesPrefixAndName)
{
    const Captured captured = capture([] { log_error("run", "bad: %ls", L"\x20AC"); });

    EXPECT_EQ(captured.err, "ERR:#qm7osd:[(null)]=(run)\n"); // the C locale has no such character
}

TEST(ErrorLog, FlushesStandardErrorAfterEachLine)
{
    flushes_of_stderr = 0;
    capture([] {
        const int before = flushes_of_stderr;
        log_error("run", "one");
        EXPECT_EQ(flushes_of_stderr, before + 1);
        log_error("run", "two");
        EXPECT_EQ(flushes_of_stderr, before + 2);
    });
}

TEST(ErrorLog, LineReachesStandardErrorInOnePiece)
{
    int sockets[2];
    ASSERT_EQ(socketpair(AF_UNIX, SOCK_DGRAM, 0, sockets), 0);
    const int saved = dup(STDERR_FILENO);
    ASSERT_EQ(dup2(sockets[0], STDERR_FILENO), STDERR_FILENO);

    log_error("run", "number %d", 42); // each write is a message of its own

    dup2(saved, STDERR_FILENO);
    close(saved);
    char message[256];
    const ssize_t bytes = recv(sockets[1], message, sizeof message, MSG_DONTWAIT);
    EXPECT_EQ(std::string(message, bytes < 0 ? 0 : (size_t)bytes),
              "ERR:#qm7osd:[(null)]=number 42(run)\n");
    EXPECT_LT(recv(sockets[1], message, sizeof message, MSG_DONTWAIT), 0);
    close(sockets[0]);
    close(sockets[1]);
}
