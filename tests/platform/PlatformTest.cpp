// Our platform layer: URL coding, descriptors, threads, strings, hashing, files, sockets, log.
#include "platform/Base64.h"
#include "platform/Encryptable.h"
#include "platform/Files.h"
#include "platform/Io.h"
#include "platform/Log.h"
#include "platform/PlatformFakes.h"
#include "platform/Sockets.h"
#include "platform/Strings.h"
#include "platform/Thread.h"
#include "platform/Url.h"
#include "tests/harness/LogCapture.h"

#include <errno.h>
#include <fcntl.h>
#include <gtest/gtest.h>
#include <signal.h>
#include <sys/socket.h>
#include <unistd.h>

#include <string>
#include <thread>

namespace {

std::string encode(char const *text) {
    char *raw = UrlEncode(text);
    std::string result(raw);
    delete[] raw;
    return result;
}

std::string decode(char const *text) {
    char *raw = UrlDecode(text);
    std::string result(raw);
    delete[] raw;
    return result;
}

TEST(UrlTest, EncodesAllButTheUnreserved) {
    struct Row {
        char const *plain;
        char const *encoded;
    } const rows[] = {
        {"", ""},
        {"AZaz09-._~", "AZaz09-._~"},
        {"a b", "a%20b"},
        {"a+b", "a%2Bb"},
        {"a|b=c&d", "a%7Cb%3Dc%26d"},
        {"https://x/y?z", "https%3A%2F%2Fx%2Fy%3Fz"},
        {"\xff\x01", "%FF%01"},
        {"{\"k\":\"v\"}", "%7B%22k%22%3A%22v%22%7D"},
    };
    for (auto const &row : rows) {
        EXPECT_EQ(encode(row.plain), row.encoded) << row.plain;
        EXPECT_EQ(decode(row.encoded), row.plain) << row.encoded;
    }
    EXPECT_EQ(encode(nullptr), "");
    EXPECT_EQ(decode(nullptr), "");
}

TEST(UrlTest, DecodeLeavesEverythingElseAsWritten) {
    EXPECT_EQ(decode("a+b"), "a+b");
    EXPECT_EQ(decode("%2b%2B"), "++");
    EXPECT_EQ(decode("%zz%4"), "%zz%4");
    EXPECT_EQ(decode("100%"), "100%");
    EXPECT_EQ(decode("%7C"), "|");
}

TEST(IoTest, WaitReportsEachSideTimeOutAndHangUp) {
    int first[2];
    int second[2];
    ASSERT_EQ(Io::pipe(first, 0, 65536), 0);
    ASSERT_EQ(socketpair(AF_UNIX, SOCK_STREAM, 0, second), 0);
    // Made outside the platform, so their numbers may be ones it closed in an earlier test;
    // a host hands its descriptors over the same way.
    Io::adopt(second[0]);
    Io::adopt(second[1]);
    EXPECT_EQ(Io::wait(first[0], second[0], 10), 0);
    ASSERT_EQ(write(first[1], "x", 1), 1);
    EXPECT_EQ(Io::wait(first[0], second[0], 10), 1);
    ASSERT_EQ(write(second[1], "y", 1), 1);
    EXPECT_EQ(Io::wait(first[0], second[0], 10), 3);
    char byte;
    ASSERT_EQ(read(first[0], &byte, 1), 1);
    EXPECT_EQ(Io::wait(first[0], second[0], 10), 2);
    ASSERT_EQ(read(second[0], &byte, 1), 1);
    close(second[1]);
    // Hang-up counts as readable, and the read then reports the end.
    EXPECT_EQ(Io::wait(first[0], second[0], 10), 2);
    EXPECT_EQ(Io::fds_[second[0]].read(&byte, 1), 0);
    EXPECT_NE(fcntl(first[0], F_GETFD) & FD_CLOEXEC, 0);
    Io::close(first[0]);
    Io::close(first[1]);
    close(second[0]);
}

TEST(IoTest, NumbersClosedByThePlatformAreNeverTouchedAgain) {
    int fds[2];
    ASSERT_EQ(Io::pipe(fds, 0, 4096), 0);
    ASSERT_EQ(Io::close(fds[0]), 0);
    ASSERT_EQ(Io::close(fds[1]), 0);
    // Someone else gets the same numbers.
    int reused[2];
    ASSERT_EQ(pipe(reused), 0);
    char byte = 'z';
    errno = 0;
    EXPECT_EQ(Io::fds_[fds[1]].write(&byte, 1), -1);
    EXPECT_EQ(errno, EBADF);
    EXPECT_EQ(Io::fds_[fds[0]].read(&byte, 1), -1);
    EXPECT_EQ(Io::close(fds[0]), -1);
    EXPECT_EQ(Io::close(fds[1]), -1);
    EXPECT_NE(fcntl(reused[0], F_GETFD), -1);
    EXPECT_NE(fcntl(reused[1], F_GETFD), -1);
    // Handed in anew, a number is usable again.
    Io::adopt(reused[1]);
    Io::adopt(reused[0]);
    EXPECT_EQ(Io::fds_[reused[1]].write("q", 1), 1);
    EXPECT_EQ(Io::fds_[reused[0]].read(&byte, 1), 1);
    EXPECT_EQ(byte, 'q');
    close(reused[0]);
    close(reused[1]);
    // A new pipe on those numbers clears the marks too.
    int again[2];
    ASSERT_EQ(Io::pipe(again, 0, 0), 0);
    EXPECT_EQ(Io::fds_[again[1]].write("r", 1), 1);
    Io::close(again[0]);
    Io::close(again[1]);
}

TEST(IoTest, WritingToAPeerThatLeftDoesNotKillTheProcess) {
    int fds[2];
    ASSERT_EQ(socketpair(AF_UNIX, SOCK_STREAM, 0, fds), 0);
    Io::adopt(fds[1]);
    close(fds[0]);
    EXPECT_EQ(Io::fds_[fds[1]].write("x", 1), -1);
    EXPECT_EQ(errno, EPIPE);
    close(fds[1]);
}

void *echo(void *argument) {
    return argument;
}

TEST(ThreadTest, CreateAndJoin) {
    uint64_t handle = 0;
    uint64_t id = 0;
    int value = 7;
    ASSERT_EQ(ThreadCreate(&handle, &id, echo, &value), 1);
    void *result = nullptr;
    EXPECT_EQ(ThreadJoin(handle, &result), 1);
    EXPECT_EQ(result, &value);
    EXPECT_EQ(ThreadCreate(nullptr, &id, echo, nullptr), 0);
}

void *initThenCheck(void *) {
    ThreadInit(104);
    sigset_t current;
    pthread_sigmask(SIG_BLOCK, nullptr, &current);
    char name[32] = {0};
    pthread_getname_np(pthread_self(), name, sizeof name);
    bool ok = sigismember(&current, SIGPIPE) == 1 && std::string(name) == "qxss-worker";
    return ok ? reinterpret_cast<void *>(1) : nullptr;
}

TEST(ThreadTest, InitBlocksSigpipeAndNamesTheThread) {
    uint64_t handle = 0;
    uint64_t id = 0;
    ASSERT_EQ(ThreadCreate(&handle, &id, initThenCheck, nullptr), 1);
    void *result = nullptr;
    ThreadJoin(handle, &result);
    EXPECT_NE(result, nullptr);
}

TEST(StringsTest, InitAddCount) {
    char *text = nullptr;
    EXPECT_STREQ(StringInit(text, "abc"), "abc");
    delete[] text;
    EXPECT_STREQ(StringInit(text, "abcdef", 3), "abc");
    delete[] text;
    EXPECT_EQ(StringInit(text, nullptr), nullptr);
    EXPECT_STREQ(StringAdd(text, "a", "|", "b", nullptr, "c"), "a|bc");
    EXPECT_STREQ(StringAdd(text, "1", "2", "3", "4", "5", "6", "7", "8"), "12345678");
    delete[] text;
    EXPECT_EQ(StringCount("a:b:c", 5, ':'), 2);
    EXPECT_EQ(StringCount("a:b:c", 2, ':'), 1);
    EXPECT_EQ(StringCount(nullptr, 3, ':'), 0);
}

TEST(Base64Test, Rfc4648Vectors) {
    struct Row {
        char const *plain;
        char const *encoded;
    } const rows[] = {{"", ""},
                      {"f", "Zg=="},
                      {"fo", "Zm8="},
                      {"foo", "Zm9v"},
                      {"foob", "Zm9vYg=="},
                      {"fooba", "Zm9vYmE="},
                      {"foobar", "Zm9vYmFy"}};
    for (auto const &row : rows) {
        int length = static_cast<int>(strlen(row.plain));
        int size = b64_encode_buffer_size(length, 0);
        EXPECT_EQ(size, static_cast<int>(strlen(row.encoded)) + 1);
        std::string out(static_cast<size_t>(size), '\0');
        EXPECT_EQ(b64_encode_buffer(row.plain, length, &out[0], size, 0),
                  static_cast<int>(strlen(row.encoded)));
        EXPECT_STREQ(out.c_str(), row.encoded);
    }
    char small[4];
    EXPECT_EQ(b64_encode_buffer("foo", 3, small, 4, 0), -1);
}

TEST(EncryptableTest, HashAndRandom) {
    char *out = nullptr;
    EXPECT_EQ(Encryptable::getHashBase64("abc", out), 44);
    EXPECT_STREQ(out, "ungWv48Bz+pBQUDeXa4iI7ADYaOWF3qctBD/YfIAFa0=");
    delete[] out;
    EXPECT_EQ(Encryptable::getHash(nullptr, out), 0);
    EXPECT_EQ(out, nullptr);
    char buffer[64] = {0};
    EXPECT_EQ(Encryptable::getRandom(buffer, 64), 1);
    PlatformFakes::random() = [](char *, int) { return 0; };
    EXPECT_EQ(Encryptable::getRandom(buffer, 64), 0);
    PlatformFakes::reset();
}

TEST(FilesTest, ExistenceAndTheFake) {
    EXPECT_EQ(FileIsEntity("/"), 1);
    EXPECT_EQ(FileIsEntity("/no/such/path"), 0);
    EXPECT_EQ(FileIsEntity(nullptr), 0);
    EXPECT_EQ(FileAccess("/"), 0);
    PlatformFakes::fileExists() = [](char const *path) {
        return std::string(path) == "/" ? 0 : std::string(path) == "/x" ? -1 : 2;
    };
    EXPECT_EQ(FileIsEntity("/"), 0);
    EXPECT_EQ(FileIsEntity("/x"), -1);
    EXPECT_EQ(FileAccess("/"), -1);
    EXPECT_EQ(FileIsEntity("/tmp"), 1);
    PlatformFakes::reset();
}

TEST(SocketsTest, AddressesPortsAndLookups) {
    EXPECT_EQ(SocketValidateIp("127.0.0.1"), 1);
    EXPECT_EQ(SocketValidateIp("::1"), 1);
    EXPECT_EQ(SocketValidateIp("localhost"), 0);
    EXPECT_EQ(SocketValidateIp("256.0.0.1"), 0);
    EXPECT_EQ(SocketValidatePort(0), 0);
    EXPECT_EQ(SocketValidatePort(1), 1);
    EXPECT_EQ(SocketValidatePort(65535), 1);
    EXPECT_EQ(SocketValidatePort(65536), 0);
    sockaddr_storage address;
    // "localhost" comes from the hosts file; a name with an empty label is refused by the
    // resolver itself. Neither asks a name server.
    EXPECT_EQ(SocketLookupAddress4(&address, "localhost"), 0);
    EXPECT_EQ(SocketLookupAddress4(&address, "no..such.host"), -1);
    EXPECT_EQ(SocketLookupAddress6(&address, "no..such.host"), -1);
}

TEST(LogTest, WholeStatementsNeverInterleave) {
    LogCapture log;
    auto writer = [](char tag) {
        for (int i = 0; i < 2000; ++i) {
            Log() << "Test: " << tag << " piece one " << i << " piece two " << tag << ".\n";
        }
    };
    std::thread a(writer, 'a');
    std::thread b(writer, 'b');
    a.join();
    b.join();
    auto lines = log.lines();
    ASSERT_EQ(lines.size(), 4000u);
    for (auto const &line : lines) {
        char tag = line[6];
        std::string rest = line.substr(7);
        size_t number = rest.find(" piece two ");
        ASSERT_NE(number, std::string::npos) << line;
        EXPECT_EQ(rest.substr(number), std::string(" piece two ") + tag + ".\n") << line;
    }
}

TEST(LogTest, NullTextIsNilAndNumbersArePrinted) {
    LogCapture log;
    char const *none = nullptr;
    Log() << "Test: '" << none << "' " << -5 << " " << 18446744073709551615ULL << ".\n";
    EXPECT_EQ(log.lines(), (std::vector<std::string>{"Test: 'nil' -5 18446744073709551615.\n"}));
}

}  // namespace
