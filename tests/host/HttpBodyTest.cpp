#include "HttpTest.h"
#include "http/Background.h"

#include <sys/mount.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <unistd.h>
#include <atomic>
#include <cerrno>
#include <csignal>
#include <future>

using testing::HasSubstr;
using testing::IsEmpty;
using testing::UnorderedElementsAre;

namespace {

std::atomic<bool> s_syncFails{false};
std::atomic<bool> s_interrupts{false};  ///< every second sync and write; the others write half of it
std::atomic<int> s_writes{0};
std::atomic<int> s_syncs{0};
std::atomic<dev_t> s_hollowDisk{0};  ///< that does not store what is written
std::atomic<pid_t> s_remover{0};     ///< the thread that removed a file last

pid_t ThisThread() { return static_cast<pid_t>(syscall(SYS_gettid)); }

}  // namespace

// Instead of the C library's.

int fsync(int descriptor) {
    if (s_syncFails) {
        errno = EIO;
        return -1;
    }
    if (s_interrupts && s_syncs++ % 2 == 0) {
        errno = EINTR;
        return -1;
    }
    return static_cast<int>(syscall(SYS_fsync, descriptor));
}

ssize_t write(int descriptor, const void* data, size_t size) {
    struct stat file {};
    if (s_hollowDisk != 0 && fstat(descriptor, &file) == 0 && file.st_dev == s_hollowDisk) {
        const off_t end = lseek(descriptor, static_cast<off_t>(size), SEEK_CUR);
        return end >= 0 && ftruncate(descriptor, end) == 0 ? static_cast<ssize_t>(size) : -1;
    }
    if (s_interrupts && fstat(descriptor, &file) == 0 && S_ISREG(file.st_mode)) {
        if (s_writes++ % 2 == 0) {
            errno = EINTR;
            return -1;
        }
        size = (size + 1) / 2;
    }
    return syscall(SYS_write, descriptor, data, size);
}

int unlink(const char* path) noexcept {
    s_remover = ThisThread();
    return static_cast<int>(syscall(SYS_unlinkat, AT_FDCWD, path, 0));
}

namespace {

constexpr const char* Post = "POST /api/v1/text";
constexpr const char* Put = "PUT /api/v1/files/name";

std::string Chunked(const std::string& start, const std::string& chunks) {
    return start + " HTTP/1.1\r\nHost: localhost\r\nTransfer-Encoding: chunked\r\n\r\n" + chunks;
}

std::string Chunk(const std::string& data) {
    char size[20];
    snprintf(size, sizeof(size), "%zx\r\n", data.size());
    return size + data + "\r\n";
}

/// The start of a request whose body is announced only.
std::string Announced(const std::string& start, size_t length, const std::string& more = {}) {
    return start + " HTTP/1.1\r\nHost: localhost\r\nContent-Length: " + std::to_string(length) + "\r\n" +
           more + "\r\n";
}

class HttpBodies : public HttpTest {
protected:
    static std::string FileText(const std::string& name) {
        return Sandbox::ReadFile(std::string(Uploads) + "/" + name);
    }

    /// Sends a byte of the body every now and then.
    Answer AskSlowly(const std::string& start) {
        HttpClient client(server.port);
        client.Send(Announced(start, 10));
        for (int sent = 0; sent < 10; ++sent) {
            client.Send("x");
            std::this_thread::sleep_for(std::chrono::milliseconds(250));
        }
        return client.Read();
    }

    const std::string middle = std::string(LongestText, 'm');
    const std::string large = std::string(LongestFile, 'l');
};

TEST_F(HttpBodies, AreReadAsText) {
    server.Serve();
    EXPECT_EQ(Ask(WithBody(Post, "some text")).body, "some text");
    EXPECT_EQ(Ask(WithBody(Post, "")).status, 200);
    EXPECT_EQ(Ask("POST /api/v1/text HTTP/1.1\r\nHost: localhost\r\n\r\n").body, "");
    EXPECT_TRUE(Ask(WithBody(Post, middle)).body == middle);
    EXPECT_EQ(Ask(WithBody(Post, std::string("a\0b\r\n\r\n", 7))).body, std::string("a\0b\r\n\r\n", 7));
}

TEST_F(HttpBodies, MayComeInChunks) {
    server.Serve();
    HttpClient client(server.port);
    EXPECT_EQ(client.Ask(Chunked(Post, "3\r\none\r\n4;name=value\r\n two\r\n0\r\n\r\n")).body, "one two");
    EXPECT_EQ(client.Ask(Chunked(Post, "1\r\na\r\n0\r\nTrailer: field\r\n\r\n")).body, "a");
    EXPECT_TRUE(client.Ask(Chunked(Post, Chunk(middle) + "0\r\n\r\n")).body == middle);
    EXPECT_EQ(client.Ask(Chunked(Post, "0\r\n\r\n")).status, 200);
}

TEST_F(HttpBodies, OfWrongChunksAreRefused) {
    server.Serve();
    for (const char* chunks : {"x\r\n", "-1\r\na\r\n", "3\r\nabcd\r\n0\r\n\r\n", "3\r\nabc0\r\n\r\n",
                               "11111111111111111\r\na\r\n", "\r\n"}) {
        for (const char* start : {Post, Put}) {
            HttpClient client(server.port);
            EXPECT_EQ(client.Ask(Chunked(start, chunks)).status, 400) << chunks;
            EXPECT_TRUE(client.IsClosed()) << chunks;
        }
    }
    EXPECT_THAT(FilesIn(Uploads), IsEmpty());
}

TEST_F(HttpBodies, LongerThanTheLimitAreRefused) {
    server.Serve();
    const std::string more = middle + "x";
    const std::string moreThanAFile = large + "x";
    for (const std::string& request :
         {Announced(Post, more.size()), Announced(Post, 1ULL << 62), WithBody(Post, more),
          Chunked(Post, Chunk(more)), Chunked(Post, Chunk(middle) + Chunk("x")),
          Chunked(Post, "ffffffffffff\r\n"), Announced(Put, moreThanAFile.size()),
          WithBody(Put, moreThanAFile), Chunked(Put, Chunk(moreThanAFile)),
          Chunked(Put, Chunk(large) + Chunk("x"))}) {
        HttpClient client(server.port);
        const Answer answer = client.Ask(request);
        EXPECT_EQ(answer.status, 413) << request.substr(0, 100);
        EXPECT_EQ(answer.Header("content-type"), "application/problem+json");
        EXPECT_EQ(answer.Header("connection"), "close");
        EXPECT_TRUE(client.IsClosed()) << "what is left of the body is no request";
    }
    EXPECT_THAT(FilesIn(Uploads), IsEmpty());
    EXPECT_THAT(Ask(Announced(Post, more.size())).body, HasSubstr("longer than 100000 bytes"));
}

TEST_F(HttpBodies, ThatNobodyReadsAreNoRequests) {
    server.Serve();
    HttpClient client(server.port);
    EXPECT_EQ(client.Ask(WithBody("POST /api/v1/unread", Get("/api/v1/hello"))).body, "unread");
    EXPECT_TRUE(client.IsClosed());
    HttpClient other(server.port);
    EXPECT_EQ(other.Ask(WithBody("POST /api/v1/nothing", Get("/api/v1/hello"))).status, 404);
    EXPECT_TRUE(other.IsClosed());
}

/// A client that is cut off while it sends may not find the answer.
TEST_F(HttpBodies, ThatNobodyReadsMayStillBeSent) {
    server.Serve();
    HttpClient client(server.port);
    EXPECT_EQ(client.Ask(Announced("POST /api/v1/unread", 1000) + "x").body, "unread");
    for (int at = 0; at < 5; ++at) {
        EXPECT_TRUE(client.Send("x"));
        std::this_thread::sleep_for(std::chrono::milliseconds(50));
    }
}

TEST_F(HttpBodies, AreWaitedForByClientsThatExpectIt) {
    server.Serve();
    for (const char* start : {Post, Put}) {
        HttpClient client(server.port);
        client.Send(Announced(start, 4, "Expect: 100-Continue\r\n"));
        EXPECT_EQ(client.Read().status, 100) << start;
        client.Send("body");
        EXPECT_THAT(client.Read().status, testing::AnyOf(200, 201)) << start;
        EXPECT_EQ(client.Ask(Get("/api/v1/hello")).body, "hello");
        // Without asking there is no such answer.
        EXPECT_THAT(client.Ask(WithBody(start, "next")).status, testing::AnyOf(200, 204)) << start;
    }
}

TEST_F(HttpBodies, AreNotAskedForInVain) {
    server.Serve();
    const std::string expecting = "Expect: 100-continue\r\n";
    EXPECT_EQ(Ask(Announced(Post, LongestText + 1, expecting)).status, 413);
    EXPECT_EQ(Ask(Announced(Put, LongestFile + 1, expecting)).status, 413);
    EXPECT_EQ(Ask(Announced("POST /api/v1/nothing", 5, expecting)).status, 404);
    EXPECT_EQ(Ask(Announced("POST /api/v1/client", 5, expecting)).status, 401);
    HttpClient client(server.port);
    EXPECT_EQ(client.Ask(Announced("POST /api/v1/unread", 5, expecting)).status, 200);
    EXPECT_TRUE(client.IsClosed()) << "whether the body comes nobody knows";
}

TEST_F(HttpBodies, AreNotAskedForFromOldClients) {
    server.Serve();
    EXPECT_EQ(Ask("POST /api/v1/text HTTP/1.0\r\nHost: localhost\r\nExpect: 100-continue\r\n"
                  "Content-Length: 4\r\n\r\nbody")
                  .body,
              "body");
}

TEST_F(HttpBodies, ThatBreakOffEndTheConnection) {
    server.Serve();
    for (const char* start : {Post, Put}) {
        for (const std::string& request : {Announced(start, 10) + "abc", Chunked(start, "a\r\nabc"),
                                           Chunked(start, "3\r\nabc\r\n"), Chunked(start, "")}) {
            HttpClient client(server.port);
            client.Send(request);
            client.EndSending();
            EXPECT_TRUE(client.IsClosed()) << request;
        }
    }
    EXPECT_TRUE(IsDeserted());
    EXPECT_THAT(FilesIn(Uploads), IsEmpty());
}

TEST_F(HttpBodies, ThatStallEndTheConnection) {
    server.options.idleTimeout = std::chrono::milliseconds(300);
    server.Serve();
    for (const char* start : {Post, Put}) {
        HttpClient client(server.port);
        client.Send(Announced(start, 10) + "abc");
        EXPECT_TRUE(client.IsClosed()) << start;
    }
    EXPECT_TRUE(IsDeserted());
    EXPECT_THAT(FilesIn(Uploads), IsEmpty());
}

TEST_F(HttpBodies, MayComeSlowly) {
    server.options.idleTimeout = std::chrono::milliseconds(1500);
    server.Serve();
    EXPECT_EQ(AskSlowly(Post).body, "xxxxxxxxxx");
    EXPECT_EQ(AskSlowly(Put).status, 201);
    EXPECT_EQ(FileText("name"), "xxxxxxxxxx");
}

TEST_F(HttpBodies, ThatAreTextsHaveATimeForAllOfThem) {
    server.options.textTimeout = std::chrono::milliseconds(1000);
    server.Serve();
    HttpClient client(server.port);
    client.Send(Announced(Post, 1000));
    int sent = 0;
    while (!client.HasInput(20) && sent < 500) {
        client.Send("x");
        ++sent;
    }
    EXPECT_LT(sent, 500) << "bytes one by one keep no connection";
    EXPECT_TRUE(client.IsClosed());
    EXPECT_EQ(AskSlowly(Put).status, 201);
}

TEST_F(HttpBodies, AreWrittenToFiles) {
    server.Serve();
    HttpClient client(server.port);
    EXPECT_EQ(client.Ask(WithBody(Put, large)).status, 201);
    EXPECT_TRUE(FileText("name") == large);
    EXPECT_EQ(client.Ask(WithBody(Put, "new")).status, 204);
    EXPECT_EQ(FileText("name"), "new");
    EXPECT_EQ(client.Ask(Chunked("PUT /api/v1/files/other", Chunk(large) + "0\r\n\r\n")).status, 201);
    EXPECT_TRUE(FileText("other") == large);
    EXPECT_EQ(client.Ask(WithBody("PUT /api/v1/files/empty", "")).status, 201);
    EXPECT_THAT(FilesIn(Uploads), UnorderedElementsAre("name", "other", "empty"));
    struct stat status {};
    stat((std::string(Uploads) + "/name").c_str(), &status);
    EXPECT_EQ(status.st_mode & 07777, 0644U);
}

TEST_F(HttpBodies, HaveNoNameBeforeTheyAreComplete) {
    Sandbox::WriteFile(std::string(Uploads) + "/name", "old");
    server.Serve();
    HttpClient client(server.port);
    client.Send(Announced(Put, large.size()) + large.substr(1));
    EXPECT_TRUE(Sandbox::Eventually([] { return FilesIn(Uploads).size() == 2; }));
    EXPECT_EQ(FileText("name"), "old");
    for (const std::string& name : FilesIn(Uploads)) {
        EXPECT_TRUE(name == "name" || name.starts_with(".")) << name << " would be taken for a file";
    }

    client.Send("l");
    EXPECT_EQ(client.Read().status, 204);
    EXPECT_TRUE(FileText("name") == large);
    EXPECT_EQ(FilesIn(Uploads).size(), 1U);
}

TEST_F(HttpBodies, OfClientsThatVanishLeaveNoFile) {
    Sandbox::WriteFile(std::string(Uploads) + "/name", "old");
    server.Serve();
    HttpClient client(server.port);
    client.Send(Announced(Put, large.size()) + large.substr(1));
    EXPECT_TRUE(Sandbox::Eventually([] { return FilesIn(Uploads).size() == 2; }));
    client.Vanish();
    EXPECT_TRUE(IsDeserted());
    EXPECT_THAT(FilesIn(Uploads), UnorderedElementsAre("name"));
    EXPECT_EQ(FileText("name"), "old");
}

TEST_F(HttpBodies, ThatCannotBePutInPlaceLeaveNoFile) {
    std::filesystem::create_directories(std::string(Uploads) + "/name");
    server.Serve();
    const Answer answer = Ask(WithBody(Put, "text"));
    EXPECT_EQ(answer.status, 500);
    EXPECT_THAT(answer.body, HasSubstr("/tmp/uploads/name"));
    EXPECT_THAT(FilesIn(Uploads), UnorderedElementsAre("name"));
}

TEST_F(HttpBodies, ThatAreWrittenWhereNoDirectoryCanBeAreRefused) {
    Sandbox::WriteFile(Uploads, "a file");
    server.Serve();
    const Answer answer = Ask(WithBody(Put, "text"));
    EXPECT_EQ(answer.status, 500);
    EXPECT_THAT(answer.body, HasSubstr("/tmp/uploads"));
}

/// On a disk that is large by its word only.
TEST_F(HttpBodies, OfSeveralGigabytesPassThrough) {
    constexpr size_t Size = (size_t{5} << 30) + 1;
    longestFile = Size;
    std::filesystem::create_directories(Uploads);
    ASSERT_EQ(mount("tmpfs", Uploads, "tmpfs", 0, "size=8g"), 0);
    server.Serve();
    const std::string piece(1 << 20, 'p');
    rusage before{};
    getrusage(RUSAGE_SELF, &before);
    struct stat disk {};
    stat(Uploads, &disk);
    s_hollowDisk = disk.st_dev;

    HttpClient client(server.port);
    client.Send(Announced(Put, Size));
    for (size_t sent = 0; sent < Size - 1; sent += piece.size()) {
        ASSERT_TRUE(client.Send(piece));
    }
    client.Send("p");
    EXPECT_EQ(client.Read().status, 201);

    s_hollowDisk = 0;
    EXPECT_EQ(std::filesystem::file_size(std::string(Uploads) + "/name"), Size);
    rusage after{};
    getrusage(RUSAGE_SELF, &after);
    // A sanitizer keeps what was freed for a while.
    EXPECT_LT(after.ru_maxrss - before.ru_maxrss, Size / 16 / 1024) << "KiB";
    EXPECT_EQ(client.Ask(Announced(Put, Size + 1)).status, 413);
    server.Stop();
    umount2(Uploads, MNT_DETACH);
}

TEST_F(HttpBodies, MayBeFollowedByTheNextRequestAtOnce) {
    server.Serve();
    for (const std::string& upload : {WithBody(Put, large), Chunked(Put, Chunk(large) + "0\r\n\r\n")}) {
        HttpClient client(server.port);
        client.Send(upload + Get("/api/v1/hello"));
        EXPECT_THAT(client.Read().status, testing::AnyOf(201, 204));
        EXPECT_EQ(client.Read().body, "hello");
        EXPECT_TRUE(FileText("name") == large);
    }
}

/// By signals, which may also cut short what is written.
class InterruptedDisks : public HttpBodies {
protected:
    InterruptedDisks() {
        s_syncs = 0;
        s_writes = 0;
        s_interrupts = true;
    }
    ~InterruptedDisks() override {
        s_interrupts = false;
        EXPECT_EQ(s_syncs, 4) << "of the file and of its directory, each twice";
        EXPECT_GT(s_writes, 2);
    }
};

TEST_F(InterruptedDisks, KeepUploads) {
    server.Serve();
    EXPECT_EQ(Ask(WithBody(Put, large)).status, 201);
    EXPECT_TRUE(FileText("name") == large);
}

TEST_F(InterruptedDisks, KeepTokens) {
    const std::string token = server.tokens.Make("panel", Right::Act);
    EXPECT_EQ(QxNHttp::Tokens("/tmp/tokens.json").Find(token).name, "panel");
}

/// Files may be large, and releasing them takes a disk its time: not on the thread that serves everybody.
class FailedUploads : public HttpBodies {
protected:
    FailedUploads() {
        std::promise<pid_t> thread;
        boost::asio::post(QxNHttp::DiskThread(), [&] { thread.set_value(ThisThread()); });
        disk = thread.get_future().get();
        std::filesystem::create_directories(Uploads);
        server.Serve();
    }
    ~FailedUploads() override { s_syncFails = false; }

    pid_t disk = 0;
};

TEST_F(FailedUploads, ThatAreNotSafeOnTheDiskGoOnTheDisksThread) {
    s_syncFails = true;
    const Answer answer = Ask(WithBody(Put, large));
    EXPECT_EQ(answer.status, 500);
    EXPECT_THAT(answer.body, HasSubstr("Writing in /tmp/uploads fails: Input/output error"));
    EXPECT_THAT(FilesIn(Uploads), IsEmpty());
    EXPECT_EQ(s_remover, disk);
}

TEST_F(FailedUploads, ThatCannotBePutInPlaceGoOnTheDisksThread) {
    std::filesystem::create_directories(std::string(Uploads) + "/name");
    EXPECT_EQ(Ask(WithBody(Put, large)).status, 500);
    EXPECT_THAT(FilesIn(Uploads), UnorderedElementsAre("name"));
    EXPECT_EQ(s_remover, disk);
}

TEST_F(FailedUploads, ThatBreakOffGoOnTheDisksThread) {
    HttpClient client(server.port);
    client.Send(Announced(Put, large.size()) + large.substr(1));
    EXPECT_TRUE(Sandbox::Eventually([] { return FilesIn(Uploads).size() == 1; }));
    client.Vanish();
    EXPECT_TRUE(IsDeserted());
    EXPECT_THAT(FilesIn(Uploads), IsEmpty());
    EXPECT_EQ(s_remover, disk);
}

/// A disk with little room.
class HttpBodiesOnSmallDisks : public HttpBodies {
protected:
    HttpBodiesOnSmallDisks() {
        std::filesystem::create_directories(Uploads);
        EXPECT_EQ(mount("tmpfs", Uploads, "tmpfs", 0, "size=256k"), 0);
        Sandbox::WriteFile(std::string(Uploads) + "/name", "old");
        server.Serve();
    }
    ~HttpBodiesOnSmallDisks() override {
        server.Stop();
        umount2(Uploads, MNT_DETACH);
    }

    void ExpectNothingKept(const Answer& answer) {
        EXPECT_EQ(answer.status, 507);
        EXPECT_THAT(answer.body, HasSubstr("There is no room in /tmp/uploads"));
        EXPECT_EQ(FileText("name"), "old");
        EXPECT_THAT(FilesIn(Uploads), UnorderedElementsAre("name"));
        EXPECT_EQ(Ask(WithBody(Put, "small")).status, 204);
    }
};

TEST_F(HttpBodiesOnSmallDisks, AreRefusedBeforeTheyCome) {
    ExpectNothingKept(Ask(Announced(Put, 300 << 10, "Expect: 100-continue\r\n")));
}

TEST_F(HttpBodiesOnSmallDisks, AreRefusedWhenTheDiskIsFull) {
    ExpectNothingKept(Ask(Chunked(Put, Chunk(large))));
}

TEST_F(HttpBodies, ThatTheDiskDoesNotTakeAreRefused) {
    std::signal(SIGXFSZ, SIG_IGN);
    rlimit before{};
    getrlimit(RLIMIT_FSIZE, &before);
    const rlimit tight{100000, before.rlim_max};
    server.Serve();
    setrlimit(RLIMIT_FSIZE, &tight);
    const Answer answer = Ask(WithBody(Put, large));
    setrlimit(RLIMIT_FSIZE, &before);

    EXPECT_EQ(answer.status, 500);
    EXPECT_THAT(answer.body, HasSubstr("Writing in /tmp/uploads fails: File too large"));
    EXPECT_THAT(FilesIn(Uploads), IsEmpty());
}

}  // namespace
