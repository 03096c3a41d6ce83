// File access: reader, writer, URL services, resource forks (one written by libsndfile).
#include <gtest/gtest.h>

#include <cerrno>
#include <fcntl.h>
#include <filesystem>
#include <fstream>
#include <functional>
#include <map>
#include <sched.h>
#include <sys/mount.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <sys/xattr.h>
#include <unistd.h>

#include "KROError.h"
#include "KROFileReader.h"
#include "KROFileTestSupport.h"
#include "KROFileWriter.h"
#include "KROResourceForkFinder.h"
#include "KROResourceForkParser.h"
#include "KROTestCommand.h"
#include "KROURLExtension.h"

namespace fs = std::filesystem;

namespace {

template <typename T> KROData rawBytes(const T& value) {
    const auto* raw = reinterpret_cast<const std::uint8_t*>(&value);
    return KROData(raw, raw + sizeof value);
}

KROData operator+(KROData left, const KROData& right) {
    left.insert(left.end(), right.begin(), right.end());
    return left;
}

// An error with the code whose sentence opens with the key's text formatted with `thing`.
void expectError(const KROErrorPtr& error, std::int64_t code, std::string_view key,
                 const std::string& thing = {}) {
    ASSERT_TRUE(error) << "no error for " << key;
    EXPECT_EQ(error->code(), code);
    EXPECT_EQ(error->description(), KROStringWithFormatArguments(KROLocalizedString(key), thing) +
                                        " " + KROLocalizedString("KROError_conjunction") + " " +
                                        error->failureReason() + ".");
}

// What body answers in a forked child: for state kept per process, and mount namespaces.
std::string runInChild(const std::function<std::string()>& body) {
    int channel[2];
    if (::pipe(channel) != 0) {
        return "no pipe";
    }
    if (::fork() == 0) {
        const std::string answer = body();
        ::_exit(::write(channel[1], answer.data(), answer.size()) == ssize_t(answer.size()) ? 0
                                                                                            : 1);
    }
    ::close(channel[1]);
    std::string answer;
    char buffer[512];
    for (ssize_t count; (count = ::read(channel[0], buffer, sizeof buffer)) > 0;) {
        answer.append(buffer, std::size_t(count));
    }
    ::close(channel[0]);
    int status = 0;
    ::wait(&status);
    return WIFEXITED(status) && WEXITSTATUS(status) == 0 ? answer : "the child failed";
}

// A tmpfs of `bytes` at mountPoint in a private (user) namespace; false when not allowed.
bool mountSmallTmpfs(const fs::path& mountPoint, std::size_t bytes) {
    const std::string uid = std::to_string(::getuid()), gid = std::to_string(::getgid());
    if (::unshare(CLONE_NEWNS) != 0) {
        if (::unshare(CLONE_NEWUSER | CLONE_NEWNS) != 0) {
            return false;
        }
        std::ofstream("/proc/self/setgroups") << "deny";
        std::ofstream("/proc/self/uid_map") << "0 " + uid + " 1";
        std::ofstream("/proc/self/gid_map") << "0 " + gid + " 1";
    }
    return ::mount(nullptr, "/", nullptr, MS_REC | MS_PRIVATE, nullptr) == 0 &&
           ::mount("tmpfs", mountPoint.c_str(), "tmpfs", 0,
                   ("size=" + std::to_string(bytes)).c_str()) == 0;
}

void putBigEndian(KROData& bytes, std::size_t at, std::uint64_t value, int size) {
    bytes.resize(std::max(bytes.size(), at + std::size_t(size)));
    for (int index = 0; index < size; ++index) {
        bytes[at + std::size_t(index)] = std::uint8_t(value >> ((size - 1 - index) * 8));
    }
}

void appendBigEndian(KROData& bytes, std::uint64_t value, int size) {
    putBigEndian(bytes, bytes.size(), value, size);
}

constexpr std::uint32_t code(const char (&text)[5]) {
    return std::uint32_t(std::uint8_t(text[0])) << 24 | std::uint32_t(std::uint8_t(text[1])) << 16 |
           std::uint32_t(std::uint8_t(text[2])) << 8 | std::uint8_t(text[3]);
}

struct TestResource {
    std::uint32_t type;
    std::int16_t ID;
    std::optional<std::string> name; // Mac Roman bytes
    KROData data;
};

// A classic resource fork (header, data, map, types, references, names);
// resources of one type come together. `map` is where the map starts.
KROData makeFork(const std::vector<TestResource>& resources, std::size_t* map = nullptr) {
    std::vector<std::pair<std::uint32_t, int>> types;
    for (const auto& resource : resources) {
        if (types.empty() || types.back().first != resource.type) {
            types.push_back({resource.type, 0});
        }
        ++types.back().second;
    }
    KROData data, names, list(28, 0);
    appendBigEndian(list, types.size() - 1, 2);
    std::size_t references = 0;
    for (const auto& [type, count] : types) {
        appendBigEndian(list, type, 4);
        appendBigEndian(list, std::uint16_t(count - 1), 2);
        appendBigEndian(list, 2 + 8 * types.size() + 12 * references, 2);
        references += std::size_t(count);
    }
    for (const auto& resource : resources) {
        appendBigEndian(list, std::uint16_t(resource.ID), 2);
        appendBigEndian(list, resource.name ? names.size() : 0xFFFF, 2);
        appendBigEndian(list, std::uint64_t(data.size()) << 32, 8);
        if (resource.name) {
            names.push_back(std::uint8_t(resource.name->size()));
            names.insert(names.end(), resource.name->begin(), resource.name->end());
        }
        appendBigEndian(data, resource.data.size(), 4);
        data.insert(data.end(), resource.data.begin(), resource.data.end());
    }
    putBigEndian(list, 24, 28, 2);
    putBigEndian(list, 26, list.size(), 2);
    list.insert(list.end(), names.begin(), names.end());
    KROData fork;
    for (const std::size_t value : {256ul, 256 + data.size(), data.size(), list.size()}) {
        appendBigEndian(fork, value, 4);
    }
    fork.resize(256);
    fork.insert(fork.end(), data.begin(), data.end());
    fork.insert(fork.end(), list.begin(), list.end());
    if (map) {
        *map = 256 + data.size();
    }
    return fork;
}

// An AppleDouble file: Finder info, and the fork as entry 2 unless it is empty.
KROData makeAppleDouble(const KROData& fork) {
    const std::size_t entries = fork.empty() ? 1 : 2, info = 26 + 12 * entries;
    KROData bytes;
    const std::uint64_t words[] = {0x00051607, 0x00020000, 9, info, 32, 2, info + 32, fork.size()};
    for (std::size_t index = 0; index < 8; ++index) {
        putBigEndian(bytes, index < 2 ? 4 * index : 26 + 4 * (index - 2), words[index], 4);
    }
    putBigEndian(bytes, 24, entries, 2);
    bytes.resize(info + 32);
    bytes.insert(bytes.end(), fork.begin(), fork.end());
    return bytes;
}

const std::vector<TestResource> sampleResources = {
    {code("STR "), 1000, "sample-size", {1, '2'}},
    {code("STR "), 1001, std::nullopt, {5, '4', '4', '1', '0', '0'}},
    {code("sdML"), -1, "Caf\x8E", bytesOf("marks")},
};

bool setForkAttribute(const fs::path& path, const KROData& bytes) {
    return ::setxattr(path.c_str(), KROResourceForkFinder::extendedAttributeName, bytes.data(),
                      bytes.size(), 0) == 0;
}

struct Scratch : KROTemporaryDirectory {
    fs::path file(const std::string& name, std::string_view text) const {
        KROWriteTestFile(*this / name, bytesOf(text));
        return *this / name;
    }
};

std::shared_ptr<KROFileReader> readerOf(const fs::path& url, bool inMemory = false) {
    auto reader = std::make_shared<KROFileReader>();
    EXPECT_TRUE(reader->initWithURL(url) && (!inMemory || reader->loadIntoMemory()));
    return reader;
}

} // namespace

// A short read fails with 999. Kept: in memory the count stays as asked and the
// position goes to the end; on the stream the count is what arrived. A read at
// a position counts what arrived either way and leaves the reader where it was.
TEST(KROFileReader, ShortReadsTellTheirCountByPath) {
    Scratch dir;
    dir.file("a", "abcdef");
    fs::create_directory(dir / "folder.wav");
    constexpr std::uint64_t unmoved = ~0ull;
    const struct {
        const char* what;
        const char* name;
        bool inMemory, atPosition;
        std::uint64_t at;
        std::size_t asked, counted;
        std::int64_t code; // 0 for success
        const char* read;
        std::uint64_t after; // where the reader is then, unmoved: at 2
    } cases[] = {
        {"stream, 4 bytes 2 before the end", "a", false, false, 4, 4, 2, 999, "ef", 6},
        {"memory, 4 bytes 2 before the end", "a", true, false, 4, 4, 4, 999, "ef", 6},
        {"memory, past the end", "a", true, false, 100, 1, 1, 999, "", 100},
        {"stream, 0 bytes", "a", false, false, 0, 0, 0, 0, "", 0},
        {"memory, 0 bytes", "a", true, false, 3, 0, 0, 0, "", 3},
        {"stream, a directory", "folder.wav", false, false, 0, 4, 0, EISDIR, "", 0},
        {"stream at 1, 3 bytes", "a", false, true, 1, 3, 3, 0, "bcd", unmoved},
        {"memory at 1, 3 bytes", "a", true, true, 1, 3, 3, 0, "bcd", unmoved},
        {"stream at 4, 2 before the end", "a", false, true, 4, 4, 2, 999, "ef", unmoved},
        {"memory at 4, 2 before the end", "a", true, true, 4, 4, 2, 999, "ef", unmoved},
        {"memory past the end", "a", true, true, 100, 1, 0, 999, "", unmoved},
        {"stream at 0, a directory", "folder.wav", false, true, 0, 4, 0, EISDIR, "", 0},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.what);
        auto reader = readerOf(dir / c.name, c.inMemory);
        ASSERT_TRUE(reader->setPosition(c.atPosition ? 2 : c.at));
        char buffer[8] = {};
        std::size_t length = c.asked;
        KROErrorPtr error;
        EXPECT_EQ(c.atPosition ? reader->getBufferAtPosition(buffer, &length, c.at, &error)
                               : reader->getBuffer(buffer, &length, &error),
                  c.code == 0);
        EXPECT_EQ(length, c.counted);
        if (c.code != 0) {
            expectError(error, c.code, "KROFile_action_reading");
        }
        EXPECT_EQ(std::string(buffer), c.read);
        std::uint8_t next = 0;
        if (c.after == unmoved) {
            EXPECT_TRUE(reader->getCharValue(next) && next == 'c');
        }
        std::uint64_t position = 0;
        EXPECT_TRUE(!c.inMemory || c.after == unmoved ||
                    (reader->getPosition(position) && position == c.after));
        EXPECT_TRUE(reader->getBuffer(nullptr, nullptr));
        EXPECT_TRUE(c.at != 4 || error->description() ==
                                     "Reading the file failed because the file ended before all "
                                     "the data that was asked for.");
    }
}

// The stream sees its end only by reading; a known length is kept, 0 is asked
// again; a pipe has no position; a byte goes back only on the stream.
TEST(KROFileReader, PositionsLengthAndPushBack) {
    Scratch dir;
    const fs::path url = dir.file("a", "0123456789");
    for (const bool inMemory : {false, true}) {
        auto reader = readerOf(url, inMemory);
        std::uint8_t byte = 0;
        KROData data;
        EXPECT_TRUE(reader->setPosition(7) && reader->getCharValue(byte) && byte == '7');
        EXPECT_TRUE(reader->setPositionToEnd());
        EXPECT_EQ(reader->isPositionAtEnd(), inMemory);
        EXPECT_TRUE(reader->setPositionToBeginning() && reader->getCharValue(byte) && byte == '0');
        EXPECT_EQ(reader->length(), 10u);
        EXPECT_TRUE(reader->getData(data, 9) && data.front() == '1');
        EXPECT_EQ(reader->isPositionAtEnd(), inMemory);
        KROErrorPtr error;
        EXPECT_EQ(reader->ungetCharValue('Q', &error), !inMemory);
        if (inMemory) {
            expectError(error, 998, "KROFile_action_unget");
        } else {
            EXPECT_TRUE(reader->getCharValue(byte) && byte == 'Q');
        }
    }
    auto reader = readerOf(url);
    std::uint32_t four = 0;
    std::int32_t value = 0;
    EXPECT_TRUE(reader->getFourCharCode(four) && reader->getIntValue(value));
    EXPECT_EQ(std::pair(four, value), std::pair(0x30313233u, std::int32_t(0x37363534)));
    auto grows = readerOf(dir.file("grows", ""));
    for (const auto& [more, length] : {std::pair("", 0u), {"x", 1u}, {"yz", 1u}}) {
        std::ofstream(dir / "grows", std::ios::app) << more;
        EXPECT_EQ(grows->length(), length);
    }
    KROErrorPtr error;
    EXPECT_FALSE(reader->setPosition(UINT64_MAX, &error));
    expectError(error, EINVAL, "KROFile_action_movingPosition");
    int channel[2];
    ASSERT_EQ(::pipe(channel), 0);
    auto pipe = readerOf("/proc/self/fd/" + std::to_string(channel[0]));
    std::uint64_t position = 0;
    EXPECT_FALSE(pipe->getPosition(position, &error));
    expectError(error, ESPIPE, "KROFile_action_gettingPosition");
    EXPECT_FALSE(pipe->setPositionToEnd(&error));
    expectError(error, ESPIPE, "KROFile_action_movingToEnd");
    ::close(channel[0]), ::close(channel[1]);
}

// The move to memory is for good (page-aligned, never cached); a file gone or
// grown behind the stream fails with its own error and keeps the stream.
TEST(KROFileReader, LoadIntoMemoryMovesTheReaderForGood) {
    Scratch dir;
    auto reader = readerOf(dir.file("a", "0123456789"));
    ASSERT_TRUE(reader->setPosition(3) && reader->loadIntoMemory());
    EXPECT_EQ(reader->file(), nullptr);
    EXPECT_EQ(reinterpret_cast<std::uintptr_t>(reader->contents()) % ::sysconf(_SC_PAGESIZE), 0u);
    EXPECT_EQ(reader->contentsPosition(), 0u);
    reader->setCached(true);
    EXPECT_FALSE(reader->cached());
    const std::uint8_t* image = reader->contents();
    EXPECT_TRUE(reader->loadIntoMemory() && reader->contents() == image);
    EXPECT_TRUE(readerOf(dir.file("empty", ""), true)->isPositionAtEnd());

    auto gone = readerOf(dir.file("gone", "abc"));
    fs::remove(dir / "gone");
    KROErrorPtr error;
    EXPECT_FALSE(gone->loadIntoMemory(&error));
    expectError(error, 4, "KROFile_action_gettingSize", "gone");
    auto grown = readerOf(dir.file("short", "short"));
    fs::rename(dir.file("longer", "a much longer file than the first"), dir / "short");
    EXPECT_FALSE(grown->loadIntoMemory(&error));
    expectError(error, EIO, "KROFileReader_action_reading");
    EXPECT_TRUE(!grown->contents() && grown->contentsLength() == 0);
    KROData data;
    EXPECT_TRUE(grown->setPositionToBeginning() && grown->getData(data, 5));
    EXPECT_EQ(data, bytesOf("short"));
}

// Opening fails with errno; an empty URL fails without error; a writer needs a file.
TEST(KROFileReader, OpeningFailsWithErrno) {
    Scratch dir;
    fs::create_directory(dir / "folder.wav");
    const fs::path plain = dir.file("plain", "x"), locked = dir.file("locked", "x");
    fs::permissions(locked, fs::perms::owner_read);
    const bool root = ::geteuid() == 0;
    const std::tuple<fs::path, bool, int> cases[] = {
        {dir / "missing.wav", false, ENOENT},
        {dir / "no/such/a.wav", false, ENOENT},
        {plain / "inside", false, ENOTDIR},
        {dir / "new.wav", true, ENOENT},
        {dir / "folder.wav", true, EISDIR},
        {locked, true, root ? 0 : EACCES},
        {fs::path(), false, 0},
        {fs::path(), true, 0},
    };
    for (const auto& [url, writer, code] : cases) {
        SCOPED_TRACE(url.string() + (writer ? " for writing" : ""));
        KROErrorPtr error;
        EXPECT_EQ(writer ? KROFileWriter().initWithURL(url, &error)
                         : KROFileReader().initWithURL(url, &error),
                  code == 0 && !url.empty());
        if (code != 0) {
            expectError(error, code, "KROFile_action_opening");
        }
        EXPECT_TRUE(code != 0 || !error);
    }
}

// Host byte order, patchable; a full disk is met at the flush, or at once when large.
TEST(KROFileWriter, WritesPatchesAndMeetsAFullDisk) {
    Scratch dir;
    const fs::path url = dir.file("out", "");
    KROFileWriter writer;
    std::uint64_t position = 0;
    EXPECT_TRUE(writer.initWithURL(url) && writer.writeIntValue(0x11223344) &&
                writer.writeLongLongValue(-2) && writer.writeData(bytesOf("tail")) &&
                writer.setPositionToBeginning() && writer.writeIntValue(0x55667788) &&
                writer.setPosition(12) && writer.writeBuffer("TAIL", 4) && writer.flush() &&
                writer.setPositionToEnd() && writer.getPosition(position) && position == 16);
    EXPECT_EQ(KROReadTestFile(url),
              rawBytes(std::int32_t{0x55667788}) + rawBytes(std::int64_t{-2}) + bytesOf("TAIL"));

    KROFileWriter full, large;
    if (!full.initWithURL("/dev/full") || !large.initWithURL("/dev/full")) {
        GTEST_SKIP() << "this machine has no /dev/full";
    }
    KROErrorPtr error;
    EXPECT_FALSE(!full.writeIntValue(1) || full.flush(&error));
    expectError(error, ENOSPC, "KROFile_action_synchronizing");
    EXPECT_EQ(error->description(), "Saving the buffered data of the file failed because there "
                                    "is not enough space on the disk.");
    EXPECT_FALSE(large.writeData(KROData(std::size_t{1} << 20, 0x5A), &error));
    expectError(error, ENOSPC, "KROFile_action_writing");
}

namespace {

fs::path otherFileSystem(const fs::path& dir) {
    struct stat here {
    }, there{};
    ::stat(dir.c_str(), &here);
    for (const char* candidate : {"/dev/shm", "/run", "/tmp", "/var/tmp"}) {
        std::string name = std::string(candidate) + "/kro-files-XXXXXX";
        if (::stat(candidate, &there) == 0 && there.st_dev != here.st_dev &&
            ::access(candidate, W_OK) == 0 && ::mkdtemp(name.data())) {
            return name;
        }
    }
    return {};
}

bool holdsLeftovers(const fs::path& dir) {
    return std::any_of(fs::recursive_directory_iterator(dir), {}, [](const auto& item) {
        return item.path().filename().string().find(".kro-") != std::string::npos;
    });
}

} // namespace

// Existence follows links; creating keeps existing bytes and makes parents.
TEST(KROURLExtension, ExistenceAndCreation) {
    Scratch dir;
    const fs::path plain = dir.file("a", "keep these bytes");
    fs::create_symlink(dir / "missing", dir / "dangling");
    EXPECT_TRUE(kro::existsAsFile(plain) && !kro::existsAsDirectory(plain));
    EXPECT_TRUE(kro::existsAsDirectory(dir.path()) && !kro::existsAsFile(dir.path()));
    EXPECT_FALSE(kro::exists(dir / "missing") || kro::exists(dir / "dangling"));
    KROErrorPtr error;
    EXPECT_TRUE(kro::createFile(plain, &error) && kro::createFile(dir / "new", &error));
    EXPECT_EQ(KROReadTestFile(plain), bytesOf("keep these bytes"));
    EXPECT_EQ(fs::file_size(dir / "new"), 0u);
    EXPECT_TRUE(kro::createDirectory(dir / "b/c/", &error) && kro::createDirectory(dir / "b/c"));
    const std::tuple<fs::path, bool, std::int64_t, const char*> failures[] = {
        {dir / "no/such/new", false, ENOENT, "KROFile_action_creatingFile"},
        {dir / "b", false, EISDIR, "KROFile_action_creatingFile"},
        {plain, true, 516, "KROFile_action_creatingDirectory"},
        {plain / "b", true, 4, "KROFile_action_creatingDirectory"},
    };
    for (const auto& [url, directory, code, action] : failures) {
        EXPECT_FALSE(directory ? kro::createDirectory(url, &error) : kro::createFile(url, &error));
        expectError(error, code, action);
    }
}

// A rename keeps the extension unless given one; a move onto itself touches
// nothing; no move or copy replaces a target or goes into itself.
TEST(KROURLExtension, MovesAndCopiesNeverReplace) {
    Scratch dir;
    KROErrorPtr error;
    ASSERT_TRUE(kro::renameTo(dir.file("a.wav", "wave"), "b", &error) &&
                kro::renameTo(dir.file("a.wav", "second"), "c.aif", &error));
    EXPECT_EQ(std::pair(KROReadTestFile(dir / "b.wav"), KROReadTestFile(dir / "c.aif")),
              std::pair(bytesOf("wave"), bytesOf("second")));
    struct stat before {
    }, after{};
    ::stat((dir / "b.wav").c_str(), &before);
    EXPECT_TRUE(kro::moveTo(dir / "b.wav", dir / "b.wav", &error) &&
                kro::copyTo(dir / "b.wav", dir / "b.wav", &error));
    ::stat((dir / "b.wav").c_str(), &after);
    EXPECT_EQ(std::pair(before.st_ctim.tv_sec, before.st_ctim.tv_nsec),
              std::pair(after.st_ctim.tv_sec, after.st_ctim.tv_nsec));
    EXPECT_TRUE(kro::moveTo(dir / "b.wav", dir / "d.wav", &error));
    ::stat((dir / "d.wav").c_str(), &after);
    EXPECT_EQ(before.st_ino, after.st_ino);
    fs::create_directories(dir / "e/f");
    dir.file("e/f/g", "g");
    EXPECT_TRUE(kro::copyTo(dir / "d.wav", dir / "copy.wav", &error) &&
                kro::copyTo(dir / "e", dir / "h", &error));
    EXPECT_EQ(std::pair(KROReadTestFile(dir / "copy.wav"), KROReadTestFile(dir / "h/f/g")),
              std::pair(bytesOf("wave"), bytesOf("g")));
    using Transfer = bool (*)(const kro::URL&, const kro::URL&, KROErrorPtr*);
    const std::tuple<Transfer, const char*, const char*, std::int64_t, const char*> failures[] = {
        {kro::moveTo, "c.aif", "d.wav", 516, "c"},       {kro::moveTo, "e", "d.wav", 516, "e"},
        {kro::moveTo, "missing.wav", "x", 4, "missing"}, {kro::copyTo, "c.aif", "d.wav", 516, "c"},
        {kro::copyTo, "missing.wav", "x", 4, "missing"}, {kro::copyTo, "c.aif", "no/c", 4, "c"},
    };
    for (const auto& [transfer, from, to, code, name] : failures) {
        SCOPED_TRACE(std::string(from) + " to " + to);
        EXPECT_FALSE(transfer(dir / from, dir / to, &error));
        expectError(error, code,
                    transfer == kro::moveTo ? "KROFile_action_moving" : "KROFile_action_copying",
                    name);
    }
    EXPECT_EQ(KROReadTestFile(dir / "d.wav"), bytesOf("wave"));
    EXPECT_FALSE(kro::moveTo(dir / "c.aif", dir / "d.wav", &error));
    EXPECT_EQ(error->description(), "Moving \u201c"
                                    "c"
                                    "\u201d failed because a file of that name already exists.");
    for (const Transfer transfer : {kro::moveTo, kro::copyTo}) {
        EXPECT_FALSE(transfer(dir / "e", dir / "e/f/e", &error));
        EXPECT_EQ(error->code(), EINVAL);
    }
    EXPECT_FALSE(holdsLeftovers(dir.path()));
}

// Across file systems a move copies bytes, mode and links or leaves nothing.
TEST(KROURLExtension, AMoveAcrossFileSystemsIsWholeOrNothing) {
    Scratch dir;
    const fs::path other = otherFileSystem(dir.path());
    if (other.empty()) {
        GTEST_SKIP() << "no second writable file system on this machine";
    }
    KROData bytes(300000);
    for (std::size_t index = 0; index < bytes.size(); ++index) {
        bytes[index] = std::uint8_t(index * 7);
    }
    KROWriteTestFile(dir / "a.wav", bytes);
    ::chmod((dir / "a.wav").c_str(), 0640);
    fs::create_directories(dir / "album/disc 1");
    dir.file("album/disc 1/track.wav", "track");
    fs::create_symlink("disc 1/track.wav", dir / "album/link.wav");
    KROErrorPtr error;
    EXPECT_TRUE(kro::moveTo(dir / "a.wav", other / "a.wav", &error) &&
                kro::moveTo(dir / "album", other / "album", &error));
    EXPECT_FALSE(fs::exists(dir / "a.wav") || fs::exists(dir / "album"));
    EXPECT_EQ(KROReadTestFile(other / "a.wav"), bytes);
    EXPECT_EQ(fs::status(other / "a.wav").permissions(), fs::perms(0640));
    EXPECT_TRUE(fs::is_symlink(other / "album/link.wav"));
    EXPECT_EQ(KROReadTestFile(other / "album/link.wav"), bytesOf("track"));
    EXPECT_FALSE(kro::moveTo(dir.file("b.wav", "second"), other / "a.wav", &error));
    expectError(error, 516, "KROFile_action_moving", "b");
    EXPECT_EQ(KROReadTestFile(other / "a.wav"), bytes);
    if (::geteuid() != 0) {
        fs::create_directory(dir / "locked");
        dir.file("locked/c.wav", "stays");
        fs::permissions(dir / "locked", fs::perms::owner_read | fs::perms::owner_exec);
        EXPECT_FALSE(kro::moveTo(dir / "locked/c.wav", other / "c.wav", &error));
        fs::permissions(dir / "locked", fs::perms::owner_all);
        expectError(error, 513, "KROFile_action_moving", "c");
        EXPECT_FALSE(fs::exists(other / "c.wav"));
    }
    EXPECT_FALSE(holdsLeftovers(other));
    fs::remove_all(other);

    fs::create_directory(dir / "small");
    KROWriteTestFile(dir / "big.wav", KROData(std::size_t{1} << 20, 0x42));
    EXPECT_EQ(runInChild([&]() -> std::string {
                  KROErrorPtr error;
                  if (!mountSmallTmpfs(dir / "small", 64 << 10)) {
                      return "ok";
                  }
                  return kro::moveTo(dir / "big.wav", dir / "small/big.wav", &error) ? "moved"
                         : error->code() == 640 && fs::is_empty(dir / "small")
                             ? "ok"
                             : error->description();
              }),
              "ok");
    EXPECT_EQ(fs::file_size(dir / "big.wav"), std::uintmax_t{1} << 20);
}

// Directory items: listed, sized, copied (existing names skipped), emptied, deleted.
TEST(KROURLExtension, DirectoriesAndTheirItems) {
    Scratch dir;
    fs::create_directories(dir / "d/sub/deep");
    dir.file("d/b", std::string(100, 'x'));
    dir.file("d/.hidden", std::string(20, 'x'));
    dir.file("d/sub/deep/c", "abc");
    fs::create_directories(dir / "target");
    dir.file("target/b", "old");
    KROErrorPtr error;
    EXPECT_EQ(kro::contentsOfDirectory(dir / "d", &error),
              (std::vector<fs::path>{dir / "d/.hidden", dir / "d/b", dir / "d/sub"}));
    std::uint64_t size = 0, fileSize = 0;
    EXPECT_TRUE(kro::getSizeOfDirectory(dir / "d", size, &error) &&
                kro::getSizeOfFile(dir / "d/b", fileSize, &error));
    EXPECT_EQ(std::pair(size, fileSize), std::pair(std::uint64_t{123}, std::uint64_t{100}));
    EXPECT_TRUE(kro::copyItemsInDirectoryToDirectory(dir / "d", dir / "target", &error) &&
                kro::copyItemsInDirectoryToDirectory(dir / "d", dir / "fresh/x", &error));
    EXPECT_EQ(
        std::pair(KROReadTestFile(dir / "target/b"), KROReadTestFile(dir / "target/sub/deep/c")),
        std::pair(bytesOf("old"), bytesOf("abc")));
    EXPECT_EQ(KROReadTestFile(dir / "fresh/x/b"), KROReadTestFile(dir / "d/b"));
    EXPECT_TRUE(kro::emptyDirectory(dir / "d", &error) && fs::is_empty(dir / "d"));
    EXPECT_TRUE(kro::deleteItem(dir / "fresh", &error) && !fs::exists(dir / "fresh"));
    if (::geteuid() != 0) {
        fs::permissions(dir / "d", fs::perms::none);
        EXPECT_FALSE(kro::contentsOfDirectory(dir / "d", &error));
        expectError(error, 257, "KROFile_action_gettingDirectoryContents", "d");
        EXPECT_FALSE(kro::getSizeOfDirectory(dir.path(), size = 9, &error) || size != 0);
        fs::permissions(dir / "d", fs::perms::owner_all);
    }
    const fs::path missing = dir / "missing";
    const std::pair<std::function<bool()>, const char*> failures[] = {
        {[&] { return kro::deleteItem(missing, &error); }, "KROFile_action_deleting"},
        {[&] { return kro::emptyDirectory(missing, &error); },
         "KROFile_action_gettingDirectoryContents"},
        {[&] { return kro::contentsOfDirectory(missing, &error).has_value(); },
         "KROFile_action_gettingDirectoryContents"},
        {[&] { return kro::getSizeOfDirectory(missing, size = 55, &error) || size != 0; },
         "KROFile_action_gettingSize"},
        {[&] { return kro::getSizeOfFile(missing, size, &error); }, "KROFile_action_gettingSize"},
        {[&] { return kro::modificationDate(missing, &error).has_value(); },
         "KROFile_action_gettingModificationDate"},
        {[&] { return kro::availableBytesOnVolume(missing, &error) != 0; },
         "KROFile_action_gettingAvailableBytes"},
    };
    for (const auto& [operation, action] : failures) {
        EXPECT_FALSE(operation());
        expectError(error, 4, action, "missing");
    }
    EXPECT_FALSE(kro::copyItemsInDirectoryToDirectory(missing, dir / "y", &error));
    EXPECT_EQ(error->code(), 4);
}

// Kept per process: the documents directory (user-dirs, else ~/Documents) and
// its private directory, whose failed creation answers empty once, then the URL.
TEST(KROURLExtension, TheWellKnownDirectoriesAreKeptForTheProcess) {
    Scratch dir;
    const fs::path home = dir / "home";
    fs::create_directories(home / ".config");
    dir.file("home/.config/user-dirs.dirs", "# comment\nXDG_DOCUMENTS_DIR=\"$HOME/Papers\"\n");
    const auto inChild = [&](const std::function<std::string()>& body) {
        return runInChild([&] {
            ::setenv("HOME", home.c_str(), 1);
            ::unsetenv("XDG_CONFIG_HOME");
            ::unsetenv("XDG_DOCUMENTS_DIR");
            ::setenv("XDG_DATA_HOME", (dir / "data").c_str(), 1);
            return body();
        });
    };
    const auto publicDirectory = [] {
        const fs::path first = kro::publicDirectory();
        ::setenv("HOME", "/elsewhere", 1);
        return first == kro::publicDirectory() ? first.string() : "changed";
    };
    EXPECT_EQ(inChild(publicDirectory), (home / "Papers").string());
    fs::remove(home / ".config/user-dirs.dirs");
    EXPECT_EQ(inChild(publicDirectory), (home / "Documents").string());
    EXPECT_EQ(inChild([&] {
                  ::setenv("TMPDIR", home.c_str(), 1);
                  return kro::temporaryDirectory().string();
              }),
              home.string());
    const auto privateTwice = [] {
        KROErrorPtr error, again;
        const fs::path first = kro::privateDirectory(&error);
        const bool created = fs::is_directory(first);
        std::error_code ignored;
        fs::remove(first, ignored);
        const fs::path second = kro::privateDirectory(&again);
        return "[" + first.string() + "]" + (created ? " created" : "") +
               (error ? " " + std::to_string(error->code()) : "") + " " + second.string() +
               (fs::exists(second) ? " recreated" : "") + (again ? " error" : "");
    };
    const std::string kept = (home / "Documents/.private").string();
    EXPECT_EQ(inChild(privateTwice), "[" + kept + "] created " + kept);
    fs::remove_all(home / "Documents");
    dir.file("home/Documents", "a file where the folder belongs");
    EXPECT_EQ(inChild(privateTwice), "[] 4 " + kept);
    EXPECT_EQ(inChild([] {
                  kro::setApplicationName("KROTestApp");
                  const fs::path support = kro::supportDirectory();
                  return support.string() + (fs::is_directory(support) ? " created" : "");
              }),
              (dir / "data/KROTestApp").string() + " created");
}

// Resources in file order, IDs signed, Mac Roman names as UTF-8; no fork is an
// empty array, a damaged one none (parsed again on the next call).
TEST(KROResourceForkParser, ResourcesComeInFileOrder) {
    Scratch dir;
    const fs::path url = dir.file("song.sd2", "audio");
    EXPECT_TRUE(readerOf(url)->resources().value().empty());
    KROData damaged = makeFork(sampleResources);
    putBigEndian(damaged, 12, 1, 4);
    KROWriteTestFile(dir / "._song.sd2", damaged);
    auto reader = readerOf(url);
    EXPECT_FALSE(reader->resources());
    KROWriteTestFile(dir / "._song.sd2", makeFork(sampleResources));
    ASSERT_TRUE(reader->resources());
    const auto& resources = *reader->resources();
    ASSERT_EQ(resources.size(), 3u);
    EXPECT_EQ(std::tuple(resources[0]->type(), resources[0]->ID(), resources[0]->name()),
              std::tuple(code("STR "), 1000, std::string("sample-size")));
    EXPECT_EQ(std::pair(resources[1]->name(), resources[1]->data()),
              std::pair(std::string(), bytesOf("\x05"
                                               "44100")));
    EXPECT_EQ(resources[2]->description(), "KROFileResource 'sdML' -1 \"Caf\u00E9\" (5 bytes)");
    EXPECT_EQ(KROResourceForkParser::stringFromMacRoman(KROData{'a', 0x80, 0xA5, 0xDB, 0xF0, 0xFF}),
              "a\u00C4\u2022\u20AC\uF8FF\u02C7");
    EXPECT_TRUE(KROResourceForkParser::resourcesFromFork(makeFork({}))->empty());
}

// Each damage rejects the whole fork. Kept: attribute bits are read as part of
// the data offset.
TEST(KROResourceForkParser, EveryDamageRejectsTheFork) {
    std::size_t map = 0;
    const KROData fork = makeFork(sampleResources, &map);
    const std::size_t types = map + 28, references = types + 2 + 16;
    const std::tuple<const char*, std::size_t, std::uint64_t, int> damages[] = {
        {"data length is not map offset - data offset", 8, 1, 4},
        {"the map does not end with the fork", 12, 1000000, 4},
        {"the type list lies past the end", map + 24, 0x7000, 2},
        {"the name list lies past the end", map + 26, 0x7000, 2},
        {"more types than the fork holds", types, 0x7FFF, 2},
        {"more references than the fork holds", types + 2 + 4, 0x7FFF, 2},
        {"a reference list past the end", types + 2 + 6, 0xFFF0, 2},
        {"resource data past the end", references + 4, 0x00FFFFF0, 4},
        {"a data length past the end", 256, 0xFFFFFFFF, 4},
        {"attribute bits on a data offset", references + 4, 0x01000000, 4},
    };
    ASSERT_TRUE(KROResourceForkParser::resourcesFromFork(fork));
    for (const auto& [what, at, value, size] : damages) {
        KROData damaged = fork;
        putBigEndian(damaged, at, value, size);
        EXPECT_FALSE(KROResourceForkParser::resourcesFromFork(damaged)) << what;
    }
    EXPECT_FALSE(
        KROResourceForkParser::resourcesFromFork(KROData(fork.begin(), fork.begin() + 10)));
    EXPECT_FALSE(KROResourceForkParser::resourcesFromFork(KROData(fork.begin(), fork.end() - 3)));
    std::vector<TestResource> many{{code("BIG "), 0, {}, KROData(3000, 7)}};
    for (std::uint32_t index = 1; index < 1000; ++index) {
        many.push_back({0x41414100 + index, 1, {}, {}});
    }
    KROData multiplied = makeFork(many, &map);
    for (std::size_t index = 0; index < 1000; ++index) {
        putBigEndian(multiplied, map + 28 + 2 + 8000 + 12 * index + 4, 0, 4);
    }
    EXPECT_FALSE(KROResourceForkParser::resourcesFromFork(multiplied));
}

// libsndfile's forks end inside their last name: names are cut at the end.
TEST(KROResourceForkParser, ANameIsCutAtTheEndOfTheFork) {
    std::size_t map = 0;
    const KROData fork = makeFork({{code("TEXT"), 1, "Marker", bytesOf("m")}}, &map);
    const std::tuple<std::size_t, std::uint64_t, int, const char*> cases[] = {
        {fork.size() - 7, 9, 1, "Marker"},
        {fork.size() - 7, 0x80, 1, "Marker"},
        {map + 28 + 2 + 8 + 2, 0x7FFF, 2, ""},
    };
    for (const auto& [at, value, size, name] : cases) {
        KROData damaged = fork;
        putBigEndian(damaged, at, value, size);
        const auto resources = KROResourceForkParser::resourcesFromFork(damaged);
        ASSERT_TRUE(resources);
        EXPECT_EQ(std::pair((*resources)[0]->name(), (*resources)[0]->data()),
                  std::pair(std::string(name), bytesOf("m")));
    }
}

// Looked for at ..namedfork/rsrc, ._<name>, .AppleDouble/<name>, the attribute;
// raw or AppleDouble, which is passed over without a usable fork entry.
TEST(KROResourceForkFinder, TheForkIsFoundInItsPlacesInOrder) {
    Scratch dir;
    const fs::path url = dir.file("song.sd2", "audio");
    const auto saying = [](const char* text) {
        return makeFork({{code("TEXT"), 1, {}, bytesOf(text)}});
    };
    const auto found = [](const fs::path& url) {
        const auto resources =
            KROResourceForkParser::resourcesFromFork(KROResourceForkFinder::forkOfFile(url));
        return resources && resources->size() == 1
                   ? std::string((*resources)[0]->data().begin(), (*resources)[0]->data().end())
                   : "none";
    };
    KROData pastItsEnd = makeAppleDouble(saying("past"));
    putBigEndian(pastItsEnd, 26 + 12 + 8, pastItsEnd.size(), 4);
    KROWriteTestFile(dir / "._song.sd2", pastItsEnd);
    EXPECT_EQ(found(url), "none");
    const bool attribute = setForkAttribute(url, makeAppleDouble(saying("attribute")));
    EXPECT_EQ(found(url), attribute ? "attribute" : "none");
    fs::create_directory(dir / ".AppleDouble");
    KROWriteTestFile(dir / ".AppleDouble/song.sd2", makeAppleDouble(saying("netatalk")));
    EXPECT_EQ(found(url), "netatalk");
    KROWriteTestFile(dir / "._song.sd2", makeAppleDouble({}));
    EXPECT_EQ(found(url), "netatalk");
    KROWriteTestFile(dir / "._song.sd2", saying("beside"));
    EXPECT_EQ(found(url), "beside");
    fs::create_directories(dir / "named.sd2/..namedfork");
    KROWriteTestFile(dir / "named.sd2/..namedfork/rsrc", saying("named"));
    KROWriteTestFile(dir / "._named.sd2", saying("beside"));
    EXPECT_EQ(found(dir / "named.sd2"), "named");
}

// libsndfile's SD2 fork beside the file, or kept by netatalk: 1000 bytes per
// sample, 1001 the rate, 1002 the channels.
TEST(KROResourceForkFinder, ASoundDesignerIIFileMadeByLibsndfileIsParsed) {
    if (KRORunCommand("command -v sndfile-convert && command -v sox").status != 0) {
        GTEST_SKIP() << "sndfile-convert or sox is missing (scripts/install-deps installs them)";
    }
    Scratch dir;
    const std::string in = (dir / "in.wav").string(), out = (dir / "out.sd2").string();
    ASSERT_EQ(KRORunCommand("sox -n -r 44100 -c 2 -b 16 '" + in + "' synth 441s sine 440 && " +
                            "sndfile-convert '" + in + "' '" + out + "'")
                  .status,
              0);
    const KROData sidecar = KROReadTestFile(dir / "._out.sd2");
    EXPECT_EQ(KROResourceForkFinder::forkOfFile(out), sidecar);
    for (const bool wrapped : {false, true}) {
        if (wrapped) {
            fs::remove(dir / "._out.sd2");
            fs::create_directory(dir / ".AppleDouble");
            KROWriteTestFile(dir / ".AppleDouble/out.sd2", makeAppleDouble(sidecar));
        }
        std::map<std::int64_t, std::string> strings;
        bool markers = false;
        const auto reader = readerOf(out);
        for (const auto& resource : reader->resources().value()) {
            if (resource->type() == code("STR ") && !resource->data().empty()) {
                strings[resource->ID()].assign(resource->data().begin() + 1,
                                               resource->data().end());
            }
            markers = markers || resource->type() == code("sdML");
        }
        EXPECT_EQ(std::tuple(strings[1000], std::stod(strings[1001]), strings[1002], markers),
                  std::tuple("2", 44100.0, "2", true));
    }
}
