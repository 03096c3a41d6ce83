// Part 3.1: file access. Every "Edge cases worth testing" bullet is a test
// named after it; the rest cover each operation, code and action, and bad
// input: truncated files, unreadable paths, a directory where a file belongs,
// a full disk, and resource forks that point past their end.
#include <gtest/gtest.h>

#include <array>
#include <cerrno>
#include <chrono>
#include <cstdlib>
#include <cstring>
#include <fcntl.h>
#include <filesystem>
#include <fstream>
#include <functional>
#include <map>
#include <sched.h>
#include <string>
#include <sys/mount.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <sys/xattr.h>
#include <unistd.h>
#include <vector>

#include "KROError.h"
#include "KROFileReader.h"
#include "KROFileResource.h"
#include "KROFileWriter.h"
#include "KROLog.h"
#include "KROResourceForkFinder.h"
#include "KROResourceForkParser.h"
#include "KROURLExtension.h"

namespace fs = std::filesystem;

namespace {

// ---------------------------------------------------------------- helpers

constexpr std::uint32_t fourCharCode(const char (&text)[5]) {
    return (std::uint32_t(std::uint8_t(text[0])) << 24) |
           (std::uint32_t(std::uint8_t(text[1])) << 16) |
           (std::uint32_t(std::uint8_t(text[2])) << 8) | std::uint32_t(std::uint8_t(text[3]));
}

KROData bytesOf(std::string_view text) {
    return KROData(text.begin(), text.end());
}

void writeFile(const fs::path& path, const KROData& bytes) {
    std::ofstream file(path, std::ios::binary | std::ios::trunc);
    file.write(reinterpret_cast<const char*>(bytes.data()), std::streamsize(bytes.size()));
    ASSERT_TRUE(file.good()) << path;
}

void writeFile(const fs::path& path, std::string_view text) {
    writeFile(path, bytesOf(text));
}

KROData readFile(const fs::path& path) {
    std::ifstream file(path, std::ios::binary);
    return KROData(std::istreambuf_iterator<char>(file), std::istreambuf_iterator<char>());
}

// The sentence of Part 1.1 Algorithm 3 for an action and this error's reason.
std::string sentence(const std::string& action, const KROError& error) {
    return action + " " + KROLocalizedString("KROError_conjunction") + " " + error.failureReason() +
           ".";
}

// Expects an error of the family with the code and the localized action.
void expectError(const KROErrorPtr& error, const std::string& family, std::int64_t code,
                 const std::string& action) {
    ASSERT_TRUE(error) << "no error for " << action;
    EXPECT_EQ(error->className(), family);
    EXPECT_EQ(error->code(), code);
    EXPECT_EQ(error->description(), sentence(action, *error));
}

void expectFileError(const KROErrorPtr& error, std::int64_t code, std::string_view actionKey) {
    expectError(error, "KROFileError", code, KROLocalizedString(actionKey));
}

// The action of a key whose text is a format applied to the thing concerned.
std::string formattedAction(std::string_view key, const std::string& thing) {
    return KROStringWithFormatArguments(KROLocalizedString(key), thing);
}

// Runs body in a forked child and answers what it returned, or "exit N" /
// "signal N" when it did not return. Used for process-wide state that Part
// 3.1 keeps for the life of the process, and for mount namespaces.
std::string runInChild(const std::function<std::string()>& body) {
    int channel[2];
    if (::pipe(channel) != 0) {
        return "pipe failed";
    }
    const pid_t child = ::fork();
    if (child == 0) {
        ::close(channel[0]);
        const std::string answer = body();
        const ssize_t written = ::write(channel[1], answer.data(), answer.size());
        ::_exit(written == ssize_t(answer.size()) ? 0 : 1);
    }
    ::close(channel[1]);
    std::string answer;
    char buffer[512];
    for (ssize_t count; (count = ::read(channel[0], buffer, sizeof buffer)) > 0;) {
        answer.append(buffer, std::size_t(count));
    }
    ::close(channel[0]);
    int status = 0;
    ::waitpid(child, &status, 0);
    if (WIFSIGNALED(status)) {
        return "signal " + std::to_string(WTERMSIG(status));
    }
    if (WEXITSTATUS(status) != 0) {
        return "exit " + std::to_string(WEXITSTATUS(status));
    }
    return answer;
}

void writeProcFile(const char* path, const std::string& text) {
    std::ofstream file(path);
    file << text;
}

// In a forked child: a private mount namespace with a tmpfs of the given
// size at mountPoint. Root unshares directly; others through a user
// namespace. False when the machine permits neither.
bool mountSmallTmpfs(const fs::path& mountPoint, std::size_t bytes) {
    const uid_t uid = ::getuid();
    const gid_t gid = ::getgid();
    if (::unshare(CLONE_NEWNS) != 0) {
        if (::unshare(CLONE_NEWUSER | CLONE_NEWNS) != 0) {
            return false;
        }
        writeProcFile("/proc/self/setgroups", "deny");
        writeProcFile("/proc/self/uid_map", "0 " + std::to_string(uid) + " 1");
        writeProcFile("/proc/self/gid_map", "0 " + std::to_string(gid) + " 1");
    }
    if (::mount(nullptr, "/", nullptr, MS_REC | MS_PRIVATE, nullptr) != 0) {
        return false;
    }
    const std::string options = "size=" + std::to_string(bytes);
    return ::mount("tmpfs", mountPoint.c_str(), "tmpfs", 0, options.c_str()) == 0;
}

// The answer of a child that could not mount; the parent skips on it.
const std::string cannotMount = "cannot mount";

// ---------------------------------------------------------------- forks

void appendBigEndian(KROData& bytes, std::uint64_t value, int size) {
    for (int shift = (size - 1) * 8; shift >= 0; shift -= 8) {
        bytes.push_back(std::uint8_t(value >> shift));
    }
}

void putBigEndian(KROData& bytes, std::size_t at, std::uint64_t value, int size) {
    for (int index = 0; index < size; ++index) {
        bytes[at + std::size_t(index)] = std::uint8_t(value >> ((size - 1 - index) * 8));
    }
}

std::uint32_t bigEndian32(const KROData& bytes, std::size_t at) {
    return (std::uint32_t(bytes[at]) << 24) | (std::uint32_t(bytes[at + 1]) << 16) |
           (std::uint32_t(bytes[at + 2]) << 8) | std::uint32_t(bytes[at + 3]);
}

// Where the map of a fork starts, read from its header.
std::size_t mapOffsetOf(const KROData& fork) {
    return bigEndian32(fork, 4);
}

struct TestResource {
    std::uint32_t type;
    std::int16_t ID;
    std::optional<std::string> name; // raw Mac Roman bytes
    KROData data;
    std::uint8_t attributes = 0;
};

// A classic resource fork: header, 240 bytes reserved, data, map.
KROData makeFork(const std::vector<TestResource>& resources) {
    std::vector<std::uint32_t> types;
    std::map<std::uint32_t, std::vector<const TestResource*>> byType;
    for (const auto& resource : resources) {
        if (byType[resource.type].empty()) {
            types.push_back(resource.type);
        }
        byType[resource.type].push_back(&resource);
    }
    KROData data;
    KROData names;
    KROData references;
    KROData typeList;
    appendBigEndian(typeList, std::uint16_t(std::int16_t(types.size()) - 1), 2);
    std::size_t referenceCount = 0;
    for (std::uint32_t type : types) {
        const auto& list = byType[type];
        appendBigEndian(typeList, type, 4);
        appendBigEndian(typeList, std::uint16_t(std::int16_t(list.size()) - 1), 2);
        appendBigEndian(typeList, 2 + 8 * types.size() + 12 * referenceCount, 2);
        for (const TestResource* resource : list) {
            appendBigEndian(references, std::uint16_t(resource->ID), 2);
            appendBigEndian(references, resource->name ? names.size() : 0xFFFF, 2);
            appendBigEndian(references, (std::uint32_t(resource->attributes) << 24) | data.size(),
                            4);
            appendBigEndian(references, 0, 4);
            if (resource->name) {
                names.push_back(std::uint8_t(resource->name->size()));
                names.insert(names.end(), resource->name->begin(), resource->name->end());
            }
            appendBigEndian(data, resource->data.size(), 4);
            data.insert(data.end(), resource->data.begin(), resource->data.end());
            ++referenceCount;
        }
    }
    KROData map(28, 0);
    putBigEndian(map, 24, 28, 2);
    putBigEndian(map, 26, 28 + typeList.size() + references.size(), 2);
    map.insert(map.end(), typeList.begin(), typeList.end());
    map.insert(map.end(), references.begin(), references.end());
    map.insert(map.end(), names.begin(), names.end());

    // Sized once and copied into: inserting trips a false -Warray-bounds of g++ 12 at -O3.
    KROData fork(256 + data.size() + map.size(), 0);
    putBigEndian(fork, 0, 256, 4);
    putBigEndian(fork, 4, 256 + data.size(), 4);
    putBigEndian(fork, 8, data.size(), 4);
    putBigEndian(fork, 12, map.size(), 4);
    std::copy(data.begin(), data.end(), fork.begin() + 256);
    std::copy(map.begin(), map.end(), fork.begin() + std::ptrdiff_t(256 + data.size()));
    return fork;
}

// An AppleDouble file with a Finder info entry and, when asked, the fork as entry 2.
KROData makeAppleDouble(const KROData& fork, bool withFork = true) {
    KROData bytes;
    appendBigEndian(bytes, KROResourceForkParser::appleDoubleMagic, 4);
    appendBigEndian(bytes, 0x00020000, 4);
    bytes.resize(bytes.size() + 16, 0);
    const int entries = withFork ? 2 : 1;
    appendBigEndian(bytes, entries, 2);
    const std::size_t finderInfo = 26 + 12 * std::size_t(entries);
    appendBigEndian(bytes, 9, 4);
    appendBigEndian(bytes, finderInfo, 4);
    appendBigEndian(bytes, 32, 4);
    if (withFork) {
        appendBigEndian(bytes, 2, 4);
        appendBigEndian(bytes, finderInfo + 32, 4);
        appendBigEndian(bytes, fork.size(), 4);
    }
    bytes.resize(bytes.size() + 32, 0);
    if (withFork) {
        bytes.insert(bytes.end(), fork.begin(), fork.end());
    }
    return bytes;
}

const std::vector<TestResource> sampleResources = {
    {fourCharCode("STR "), 1000, std::string("sample-size"),
     bytesOf("\x01"
             "2")},
    {fourCharCode("STR "), 1001, std::nullopt,
     bytesOf("\x05"
             "44100")},
    {fourCharCode("sdML"), -1, std::string("Caf\x8E"), bytesOf("marks")},
};

bool setForkAttribute(const fs::path& path, const KROData& bytes) {
    return ::setxattr(path.c_str(), KROResourceForkFinder::extendedAttributeName, bytes.data(),
                      bytes.size(), 0) == 0;
}

// ---------------------------------------------------------------- fixture

class Part_3_1 : public ::testing::Test {
protected:
    void SetUp() override {
        std::string name = (kro::temporaryDirectory() / "kro-files-XXXXXX").string();
        ASSERT_NE(::mkdtemp(name.data()), nullptr);
        directory_ = name;
    }

    void TearDown() override {
        std::error_code ignored;
        fs::permissions(directory_, fs::perms::owner_all, fs::perm_options::add, ignored);
        fs::remove_all(directory_, ignored);
    }

    fs::path path(const std::string& name) const { return directory_ / name; }

    // A file with the given bytes.
    fs::path file(const std::string& name, std::string_view text) const {
        const fs::path result = path(name);
        writeFile(result, text);
        return result;
    }

    std::shared_ptr<KROFileReader> openReader(const fs::path& url) const {
        auto reader = std::make_shared<KROFileReader>();
        KROErrorPtr error;
        EXPECT_TRUE(reader->initWithURL(url, &error)) << (error ? error->description() : "");
        return reader;
    }

    std::shared_ptr<KROFileReader> memoryReader(const fs::path& url) const {
        auto reader = openReader(url);
        KROErrorPtr error;
        EXPECT_TRUE(reader->loadIntoMemory(&error)) << (error ? error->description() : "");
        return reader;
    }

    fs::path directory_;
};

// A fixture for each group of tests, so that gtest names read by subject.
using Part_3_1_Reader = Part_3_1;
using Part_3_1_Writer = Part_3_1;
using Part_3_1_URL = Part_3_1;
using Part_3_1_Fork = Part_3_1;

} // namespace

// ============================================================ edge cases

TEST_F(Part_3_1, ARequestOf0BytesOnTheStreamPathSucceeds) {
    auto reader = openReader(file("a", "abc"));
    std::size_t length = 0;
    KROErrorPtr error;
    EXPECT_TRUE(reader->getBuffer(nullptr, &length, &error));
    EXPECT_FALSE(error);
    EXPECT_EQ(length, 0u);
    EXPECT_NE(reader->file(), nullptr);
}

TEST_F(Part_3_1, Reading4BytesAt2BytesBeforeTheEndFailsWithCode999AndReports2OnTheStreamPath) {
    auto reader = openReader(file("a", "abcdef"));
    ASSERT_TRUE(reader->setPosition(4));
    std::array<char, 4> buffer{};
    std::size_t length = 4;
    KROErrorPtr error;
    EXPECT_FALSE(reader->getBuffer(buffer.data(), &length, &error));
    expectFileError(error, 999, "KROFile_action_reading");
    EXPECT_EQ(length, 2u);
    EXPECT_EQ(std::string(buffer.data(), 2), "ef");
    EXPECT_EQ(error->description(), "Reading the file failed because the file ended before all "
                                    "the data that was asked for.");
}

TEST_F(Part_3_1,
       Reading4BytesAt2BytesBeforeTheEndOnTheMemoryPathMovesToTheEndAndLeavesTheCountAt4) {
    auto reader = memoryReader(file("a", "abcdef"));
    ASSERT_TRUE(reader->setPosition(4));
    std::array<char, 4> buffer{};
    std::size_t length = 4;
    KROErrorPtr error;
    EXPECT_FALSE(reader->getBuffer(buffer.data(), &length, &error));
    expectFileError(error, 999, "KROFile_action_reading");
    EXPECT_EQ(length, 4u);
    EXPECT_EQ(std::string(buffer.data(), 2), "ef");
    std::uint64_t position = 0;
    EXPECT_TRUE(reader->getPosition(position));
    EXPECT_EQ(position, 6u);
    EXPECT_TRUE(reader->isPositionAtEnd());
}

TEST_F(Part_3_1, LengthOfAnEmptyFileIsRecomputedBySeekingOnEveryCallAndStays0) {
    const fs::path url = file("empty", "");
    auto reader = openReader(url);
    EXPECT_EQ(reader->length(), 0u);
    EXPECT_EQ(reader->length(), 0u);
    // Recomputed: bytes that arrive later are seen, since 0 is never kept.
    {
        std::ofstream append(url, std::ios::binary | std::ios::app);
        append << "xyz";
    }
    EXPECT_EQ(reader->length(), 3u);
}

TEST_F(Part_3_1, LengthIsKeptOnceKnown) {
    const fs::path url = file("a", "abcd");
    auto reader = openReader(url);
    ASSERT_TRUE(reader->setPosition(1));
    EXPECT_EQ(reader->length(), 4u);
    std::uint64_t position = 0;
    EXPECT_TRUE(reader->getPosition(position));
    EXPECT_EQ(position, 1u) << "length restores the position";
    {
        std::ofstream append(url, std::ios::binary | std::ios::app);
        append << "more";
    }
    EXPECT_EQ(reader->length(), 4u);
}

TEST_F(
    Part_3_1,
    IsPositionAtEndAfterReadingExactlyToTheLastByteIsFalseOnTheStreamPathAndTrueOnTheMemoryPath) {
    const fs::path url = file("a", "abcd");
    std::array<char, 4> buffer{};
    std::size_t length = 4;

    auto stream = openReader(url);
    ASSERT_TRUE(stream->getBuffer(buffer.data(), &length));
    EXPECT_FALSE(stream->isPositionAtEnd());

    auto memory = memoryReader(url);
    length = 4;
    ASSERT_TRUE(memory->getBuffer(buffer.data(), &length));
    EXPECT_TRUE(memory->isPositionAtEnd());
}

TEST_F(Part_3_1, CreateFileOnAnExistingFileLeavesItsBytesUntouched) {
    const fs::path url = file("a", "keep these bytes");
    KROErrorPtr error;
    EXPECT_TRUE(kro::createFile(url, &error));
    EXPECT_FALSE(error);
    EXPECT_EQ(readFile(url), bytesOf("keep these bytes"));
}

TEST_F(Part_3_1, RenameToOfAWavToBYieldsBWavToBAifYieldsBAif) {
    const fs::path a = file("a.wav", "wave");
    KROErrorPtr error;
    ASSERT_TRUE(kro::renameTo(a, "b", &error)) << error->description();
    EXPECT_FALSE(fs::exists(a));
    EXPECT_EQ(readFile(path("b.wav")), bytesOf("wave"));

    const fs::path second = file("a.wav", "second");
    ASSERT_TRUE(kro::renameTo(second, "b.aif", &error)) << error->description();
    EXPECT_EQ(readFile(path("b.aif")), bytesOf("second"));
    EXPECT_FALSE(fs::exists(path("b.aif.wav")));
}

TEST_F(Part_3_1, MoveToOntoTheSameURLSucceedsWithoutTouchingTheFile) {
    const fs::path url = file("a.wav", "unchanged");
    struct stat before {};
    ASSERT_EQ(::stat(url.c_str(), &before), 0);
    KROErrorPtr error;
    EXPECT_TRUE(kro::moveTo(url, url, &error));
    EXPECT_FALSE(error);
    struct stat after {};
    ASSERT_EQ(::stat(url.c_str(), &after), 0);
    EXPECT_EQ(before.st_ino, after.st_ino);
    EXPECT_EQ(before.st_ctim.tv_sec, after.st_ctim.tv_sec);
    EXPECT_EQ(before.st_ctim.tv_nsec, after.st_ctim.tv_nsec);
    EXPECT_EQ(readFile(url), bytesOf("unchanged"));
}

TEST_F(Part_3_1, AForkWithAnInconsistentHeaderYieldsAnEmptyResourcesAndAFurtherCallParsesItAgain) {
    const fs::path url = file("song.sd2", "audio");
    KROData fork = makeFork(sampleResources);
    KROData damaged = fork;
    putBigEndian(damaged, 12, 1, 4); // map length no longer reaches the end
    writeFile(path("._song.sd2"), damaged);

    auto reader = openReader(url);
    EXPECT_FALSE(reader->resources().has_value());
    EXPECT_FALSE(reader->resources().has_value());

    writeFile(path("._song.sd2"), fork);
    ASSERT_TRUE(reader->resources().has_value()) << "parsed again on the next call";
    EXPECT_EQ(reader->resources()->size(), 3u);
}

TEST_F(Part_3_1, AFileWithNoForkYieldsAnEmptyArrayNotAnEmptyResources) {
    auto reader = openReader(file("plain.wav", "RIFF"));
    ASSERT_TRUE(reader->resources().has_value());
    EXPECT_TRUE(reader->resources()->empty());
}

// ============================================================ reader

TEST_F(Part_3_1_Reader, InitWithAnEmptyURLGivesNoReaderAndNoError) {
    KROFileReader reader;
    KROErrorPtr error;
    EXPECT_FALSE(reader.initWithURL({}, &error));
    EXPECT_FALSE(error);
}

TEST_F(Part_3_1_Reader, InitOpensTheFileCachedWithoutSecurityScopedAccess) {
    const fs::path url = file("a", "abc");
    auto reader = openReader(url);
    EXPECT_EQ(reader->URL(), url);
    EXPECT_NE(reader->file(), nullptr);
    EXPECT_TRUE(reader->cached());
    EXPECT_FALSE(reader->shouldStopSecurityScopedAccess());
    EXPECT_EQ(reader->contents(), nullptr);
    EXPECT_EQ(reader->className(), "KROFileReader");
}

TEST_F(Part_3_1_Reader, ASecondInitLeavesTheFirstFile) {
    auto reader = memoryReader(file("first", "first"));
    ASSERT_TRUE(reader->initWithURL(file("second", "second!")));
    EXPECT_EQ(reader->contents(), nullptr);
    EXPECT_NE(reader->file(), nullptr);
    EXPECT_TRUE(reader->cached());
    EXPECT_EQ(reader->length(), 7u);
    KROData data;
    EXPECT_TRUE(reader->getData(data, 7));
    EXPECT_EQ(data, bytesOf("second!"));
}

TEST_F(Part_3_1_Reader, InitOfAMissingFileFailsWithErrnoAndTheOpeningAction) {
    KROFileReader reader;
    KROErrorPtr error;
    EXPECT_FALSE(reader.initWithURL(path("missing.wav"), &error));
    expectFileError(error, ENOENT, "KROFile_action_opening");
    EXPECT_EQ(error->description(),
              "Opening the file failed because the file or folder does not exist.");
    EXPECT_FALSE(reader.initWithURL(path("missing.wav"), nullptr));
}

TEST_F(Part_3_1_Reader, InitInsideANonExistentDirectoryOrThroughAFileFails) {
    KROFileReader reader;
    KROErrorPtr error;
    EXPECT_FALSE(reader.initWithURL(path("no/such/dir/a.wav"), &error));
    expectFileError(error, ENOENT, "KROFile_action_opening");
    const fs::path plain = file("plain", "x");
    EXPECT_FALSE(reader.initWithURL(plain / "inside", &error));
    expectFileError(error, ENOTDIR, "KROFile_action_opening");
}

TEST_F(Part_3_1_Reader, InitOfAFileWithoutReadPermissionFailsWithEACCES) {
    if (::geteuid() == 0) {
        GTEST_SKIP() << "running as root: permission bits do not stop root from reading";
    }
    const fs::path url = file("locked", "secret");
    fs::permissions(url, fs::perms::none);
    KROFileReader reader;
    KROErrorPtr error;
    EXPECT_FALSE(reader.initWithURL(url, &error));
    expectFileError(error, EACCES, "KROFile_action_opening");
}

TEST_F(Part_3_1_Reader, ADirectoryWhereAFileBelongsFailsToReadWithEISDIR) {
    fs::create_directory(path("folder.wav"));
    auto reader = openReader(path("folder.wav"));
    std::array<char, 4> buffer{};
    std::size_t length = 4;
    KROErrorPtr error;
    EXPECT_FALSE(reader->getBuffer(buffer.data(), &length, &error));
    expectFileError(error, EISDIR, "KROFile_action_reading");
    EXPECT_EQ(length, 0u) << "a stream error sets the count to 0";
}

TEST_F(Part_3_1_Reader, ValuesPassInTheHostsByteOrder) {
    KROData bytes;
    const std::int8_t c = -5;
    const std::int16_t s = -1234;
    const std::int32_t i = -123456789;
    const std::uint32_t u = 0xDEADBEEF;
    const std::int64_t ll = -1234567890123LL;
    const std::uint64_t ull = 0xFEDCBA9876543210ULL;
    auto append = [&bytes](const auto& value) {
        const auto* raw = reinterpret_cast<const std::uint8_t*>(&value);
        bytes.insert(bytes.end(), raw, raw + sizeof value);
    };
    append(c), append(s), append(i), append(u), append(ll), append(ull);
    const fs::path url = path("values");
    writeFile(url, bytes);

    for (bool inMemory : {false, true}) {
        auto reader = inMemory ? memoryReader(url) : openReader(url);
        std::int8_t rc = 0;
        std::int16_t rs = 0;
        std::int32_t ri = 0;
        std::uint32_t ru = 0;
        std::int64_t rll = 0;
        std::uint64_t rull = 0;
        EXPECT_TRUE(reader->getCharValue(rc));
        EXPECT_TRUE(reader->getShortValue(rs));
        EXPECT_TRUE(reader->getIntValue(ri));
        EXPECT_TRUE(reader->getUnsignedIntValue(ru));
        EXPECT_TRUE(reader->getLongLongValue(rll));
        EXPECT_TRUE(reader->getUnsignedLongLongValue(rull));
        EXPECT_EQ(rc, c);
        EXPECT_EQ(rs, s);
        EXPECT_EQ(ri, i);
        EXPECT_EQ(ru, u);
        EXPECT_EQ(rll, ll);
        EXPECT_EQ(rull, ull);
        std::uint8_t beyond = 7;
        KROErrorPtr error;
        EXPECT_FALSE(reader->getCharValue(beyond, &error));
        expectFileError(error, 999, "KROFile_action_reading");
        EXPECT_EQ(beyond, 7) << "a failed read leaves the value alone";
    }
}

TEST_F(Part_3_1_Reader, GetFourCharCodeReadsABigEndianInteger) {
    auto reader = openReader(file("a.wav", "RIFFWAVE"));
    std::uint32_t code = 0;
    EXPECT_TRUE(reader->getFourCharCode(code));
    EXPECT_EQ(code, 0x52494646u);
    auto memory = memoryReader(path("a.wav"));
    ASSERT_TRUE(memory->setPosition(4));
    EXPECT_TRUE(memory->getFourCharCode(code));
    EXPECT_EQ(code, fourCharCode("WAVE"));
}

TEST_F(Part_3_1_Reader, GetUUIDReads16Bytes) {
    KROData bytes(17);
    for (std::size_t index = 0; index < bytes.size(); ++index) {
        bytes[index] = std::uint8_t(index * 11);
    }
    writeFile(path("uuid"), bytes);
    auto reader = openReader(path("uuid"));
    KROUUID uuid{};
    EXPECT_TRUE(reader->getUUID(uuid));
    EXPECT_TRUE(std::equal(uuid.begin(), uuid.end(), bytes.begin()));
    KROErrorPtr error;
    EXPECT_FALSE(reader->getUUID(uuid, &error)) << "only one byte is left";
    expectFileError(error, 999, "KROFile_action_reading");
}

TEST_F(Part_3_1_Reader, GetDataReadsABlockAndLeavesTheOutArgumentAloneOnFailure) {
    auto reader = openReader(file("a", "0123456789"));
    KROData data;
    EXPECT_TRUE(reader->getData(data, 4));
    EXPECT_EQ(data, bytesOf("0123"));
    KROData kept = bytesOf("kept");
    KROErrorPtr error;
    EXPECT_FALSE(reader->getData(kept, 10, &error));
    expectFileError(error, 999, "KROFile_action_reading");
    EXPECT_EQ(kept, bytesOf("kept"));
    EXPECT_TRUE(reader->isPositionAtEnd());
}

TEST_F(Part_3_1_Reader, GetDataOfAHugeLengthFromATruncatedFileFailsAtItsEnd) {
    // A damaged length field must not allocate what it claims.
    const fs::path url = file("short", "tiny");
    for (bool inMemory : {false, true}) {
        auto reader = inMemory ? memoryReader(url) : openReader(url);
        KROData data;
        KROErrorPtr error;
        EXPECT_FALSE(reader->getData(data, std::size_t{1} << 40, &error));
        expectFileError(error, 999, "KROFile_action_reading");
        EXPECT_TRUE(data.empty());
    }
}

TEST_F(Part_3_1_Reader, GetBufferWithANullLengthPointerIsASuccessfulNoOp) {
    auto reader = openReader(file("a", "abc"));
    EXPECT_TRUE(reader->getBuffer(nullptr, nullptr));
    auto memory = memoryReader(path("a"));
    EXPECT_TRUE(memory->getBuffer(nullptr, nullptr));
    std::uint64_t position = 9;
    EXPECT_TRUE(memory->getPosition(position));
    EXPECT_EQ(position, 0u);
}

TEST_F(Part_3_1_Reader, ATruncatedFileFailsEveryValueReadWith999) {
    auto reader = openReader(file("truncated", "abc"));
    std::int32_t value = 0;
    KROErrorPtr error;
    EXPECT_FALSE(reader->getIntValue(value, &error));
    expectFileError(error, 999, "KROFile_action_reading");
    EXPECT_TRUE(reader->isPositionAtEnd());
    EXPECT_FALSE(reader->getIntValue(value, nullptr)) << "no error slot: only the boolean";
}

TEST_F(Part_3_1_Reader, PositionsOnTheStreamPath) {
    auto reader = openReader(file("a", "0123456789"));
    std::uint64_t position = 99;
    EXPECT_TRUE(reader->getPosition(position));
    EXPECT_EQ(position, 0u);
    EXPECT_TRUE(reader->setPosition(7));
    std::uint8_t byte = 0;
    EXPECT_TRUE(reader->getCharValue(byte));
    EXPECT_EQ(byte, '7');
    EXPECT_TRUE(reader->setPositionToEnd());
    EXPECT_TRUE(reader->getPosition(position));
    EXPECT_EQ(position, 10u);
    EXPECT_FALSE(reader->isPositionAtEnd()) << "the mark comes only from a read";
    EXPECT_TRUE(reader->setPositionToBeginning());
    EXPECT_TRUE(reader->getCharValue(byte));
    EXPECT_EQ(byte, '0');
    EXPECT_TRUE(reader->setPosition(1000)) << "a stream may be positioned past its end";
    EXPECT_FALSE(reader->getCharValue(byte));
}

TEST_F(Part_3_1_Reader, APositionBeyondWhatTheSystemAddressesFailsWithTheMovingPositionAction) {
    auto reader = openReader(file("a", "abc"));
    KROErrorPtr error;
    EXPECT_FALSE(reader->setPosition(UINT64_MAX, &error));
    expectFileError(error, EINVAL, "KROFile_action_movingPosition");
}

TEST_F(Part_3_1_Reader, PositionFailuresOnAPipeCarryErrnoAndTheirActions) {
    int channel[2];
    ASSERT_EQ(::pipe(channel), 0);
    const fs::path url = "/proc/self/fd/" + std::to_string(channel[0]);
    auto reader = openReader(url);
    KROErrorPtr error;
    std::uint64_t position = 0;
    EXPECT_FALSE(reader->getPosition(position, &error));
    expectFileError(error, ESPIPE, "KROFile_action_gettingPosition");
    EXPECT_FALSE(reader->setPosition(0, &error));
    expectFileError(error, ESPIPE, "KROFile_action_movingPosition");
    EXPECT_FALSE(reader->setPositionToEnd(&error));
    expectFileError(error, ESPIPE, "KROFile_action_movingToEnd");
    EXPECT_EQ(reader->length(), 0u);
    ASSERT_EQ(::write(channel[1], "ab", 2), 2);
    ::close(channel[1]);
    std::array<char, 4> buffer{};
    std::size_t length = 4;
    EXPECT_FALSE(reader->getBuffer(buffer.data(), &length, &error));
    expectFileError(error, 999, "KROFile_action_reading");
    EXPECT_EQ(length, 2u);
    ::close(channel[0]);
}

TEST_F(Part_3_1_Reader, UngetCharValuePushesAByteBackOnTheStream) {
    auto reader = openReader(file("a", "xy"));
    std::uint8_t byte = 0;
    ASSERT_TRUE(reader->getCharValue(byte));
    EXPECT_TRUE(reader->ungetCharValue('Q'));
    EXPECT_TRUE(reader->getCharValue(byte));
    EXPECT_EQ(byte, 'Q');
    EXPECT_TRUE(reader->getCharValue(byte));
    EXPECT_EQ(byte, 'y');
}

TEST_F(Part_3_1_Reader, UngetCharValueAfterLoadIntoMemoryFailsWith998) {
    auto reader = memoryReader(file("a", "xy"));
    KROErrorPtr error;
    EXPECT_FALSE(reader->ungetCharValue('Q', &error));
    expectFileError(error, 998, "KROFile_action_unget");
    EXPECT_EQ(error->description(),
              "Putting a byte back into the file failed because the byte could not be put back.");
}

TEST_F(Part_3_1_Reader, LoadIntoMemoryMovesTheReaderToMemoryForGood) {
    auto reader = openReader(file("a", "0123456789"));
    ASSERT_TRUE(reader->setPosition(3));
    KROErrorPtr error;
    ASSERT_TRUE(reader->loadIntoMemory(&error));
    EXPECT_EQ(reader->file(), nullptr);
    ASSERT_NE(reader->contents(), nullptr);
    EXPECT_EQ(reinterpret_cast<std::uintptr_t>(reader->contents()) % ::sysconf(_SC_PAGESIZE), 0u);
    EXPECT_EQ(reader->contentsLength(), 10u);
    EXPECT_EQ(reader->contentsPosition(), 0u);
    EXPECT_EQ(reader->length(), 10u);
    EXPECT_FALSE(reader->cached());
    reader->setCached(true);
    EXPECT_FALSE(reader->cached()) << "with a memory image cached stays false";
    const std::uint8_t* image = reader->contents();
    EXPECT_TRUE(reader->loadIntoMemory()) << "a second call returns at once";
    EXPECT_EQ(reader->contents(), image);
    EXPECT_TRUE(reader->setPositionToEnd());
    EXPECT_TRUE(reader->isPositionAtEnd());
    EXPECT_TRUE(reader->setPositionToBeginning());
    KROData data;
    EXPECT_TRUE(reader->getData(data, 10));
    EXPECT_EQ(data, bytesOf("0123456789"));
}

TEST_F(Part_3_1_Reader, LoadIntoMemoryOfAnEmptyFileGivesAnEmptyImage) {
    auto reader = memoryReader(file("empty", ""));
    EXPECT_NE(reader->contents(), nullptr);
    EXPECT_EQ(reader->length(), 0u);
    EXPECT_TRUE(reader->isPositionAtEnd());
    std::size_t length = 0;
    EXPECT_TRUE(reader->getBuffer(nullptr, &length));
}

TEST_F(Part_3_1_Reader, AMemoryPositionPastTheEndIsStoredAndReadsFailAsShortReads) {
    auto reader = memoryReader(file("a", "abc"));
    EXPECT_TRUE(reader->setPosition(100));
    std::uint64_t position = 0;
    EXPECT_TRUE(reader->getPosition(position));
    EXPECT_EQ(position, 100u);
    EXPECT_FALSE(reader->isPositionAtEnd());
    std::uint8_t byte = 0;
    KROErrorPtr error;
    EXPECT_FALSE(reader->getCharValue(byte, &error));
    expectFileError(error, 999, "KROFile_action_reading");
    EXPECT_TRUE(reader->getPosition(position));
    EXPECT_EQ(position, 100u);
}

TEST_F(Part_3_1_Reader, LoadIntoMemoryOfAFileThatIsGonePassesTheSizeErrorThrough) {
    const fs::path url = file("gone", "abc");
    auto reader = openReader(url);
    fs::remove(url);
    KROErrorPtr error;
    EXPECT_FALSE(reader->loadIntoMemory(&error));
    expectError(error, "KROFileError", 4, formattedAction("KROFile_action_gettingSize", "gone"));
    EXPECT_NE(reader->file(), nullptr) << "the stream stays";
}

TEST_F(Part_3_1_Reader, LoadIntoMemoryOfAFileLongerThanItsStreamFailsAndKeepsTheStream) {
    const fs::path url = file("a", "short");
    auto reader = openReader(url);
    // Another file takes the name: its size is asked by URL, the stream still
    // reads the old one and ends early.
    writeFile(path("longer"), "a much longer file than the first");
    fs::rename(path("longer"), url);
    KROErrorPtr error;
    EXPECT_FALSE(reader->loadIntoMemory(&error));
    expectFileError(error, EIO, "KROFileReader_action_reading");
    EXPECT_EQ(reader->contents(), nullptr);
    EXPECT_EQ(reader->contentsLength(), 0u);
    ASSERT_NE(reader->file(), nullptr);
    KROData data;
    EXPECT_TRUE(reader->setPositionToBeginning());
    EXPECT_TRUE(reader->getData(data, 5));
    EXPECT_EQ(data, bytesOf("short"));
}

TEST_F(Part_3_1_Reader, LoadIntoMemoryOfAFileLargerThanMemoryFailsWithTheAllocatingAction) {
#ifdef KRO_SANITIZER_BUILD
    GTEST_SKIP() << "the sanitizer's allocator aborts on a request this large instead of failing";
#endif
    std::ifstream overcommit("/proc/sys/vm/overcommit_memory");
    int mode = 0;
    if (overcommit >> mode && mode == 1) {
        GTEST_SKIP() << "overcommit_memory is 1: the allocation would succeed and the read "
                        "would fill memory";
    }
    const fs::path url = file("sparse", "");
    std::error_code sizeError;
    fs::resize_file(url, std::uintmax_t{8} << 40, sizeError);
    if (sizeError) {
        GTEST_SKIP() << "this file system holds no sparse 8 TiB file: " << sizeError.message();
    }
    auto reader = openReader(url);
    KROErrorPtr error;
    EXPECT_FALSE(reader->loadIntoMemory(&error));
    expectFileError(error, ENOMEM, "KROFileReader_action_allocatingMemory");
    EXPECT_NE(reader->file(), nullptr);
}

TEST_F(Part_3_1_Reader, SetCachedRecordsTheAnswer) {
    auto reader = openReader(file("a", "abc"));
    reader->setCached(false);
    EXPECT_FALSE(reader->cached());
    reader->setCached(true);
    EXPECT_TRUE(reader->cached());
}

TEST_F(Part_3_1_Reader, FailuresWriteNoLogLines) {
    std::vector<std::string> lines;
    KROSetLogSink([&lines](const std::string& line) { lines.push_back(line); });
    KROFileReader reader;
    KROErrorPtr error;
    reader.initWithURL(path("missing"), &error);
    KROFileWriter writer;
    writer.initWithURL(path("missing"), &error);
    kro::moveTo(path("missing"), path("elsewhere"), &error);
    KROSetLogSink({});
    EXPECT_TRUE(lines.empty()) << "Part 3.1 reports through errors only";
}

// ============================================================ writer

TEST_F(Part_3_1_Writer, InitWithAnEmptyURLGivesNoWriterAndNoError) {
    KROFileWriter writer;
    KROErrorPtr error;
    EXPECT_FALSE(writer.initWithURL({}, &error));
    EXPECT_FALSE(error);
}

TEST_F(Part_3_1_Writer, TheFileMustAlreadyExist) {
    KROFileWriter writer;
    KROErrorPtr error;
    EXPECT_FALSE(writer.initWithURL(path("new.wav"), &error));
    expectFileError(error, ENOENT, "KROFile_action_opening");
    EXPECT_FALSE(fs::exists(path("new.wav")));
    ASSERT_TRUE(kro::createFile(path("new.wav")));
    EXPECT_TRUE(writer.initWithURL(path("new.wav"), &error));
    EXPECT_EQ(writer.URL(), path("new.wav"));
    EXPECT_NE(writer.file(), nullptr);
}

TEST_F(Part_3_1_Writer, ADirectoryWhereAFileBelongsFailsWithEISDIR) {
    fs::create_directory(path("folder.wav"));
    KROFileWriter writer;
    KROErrorPtr error;
    EXPECT_FALSE(writer.initWithURL(path("folder.wav"), &error));
    expectFileError(error, EISDIR, "KROFile_action_opening");
}

TEST_F(Part_3_1_Writer, AReadOnlyFileFailsWithEACCES) {
    if (::geteuid() == 0) {
        GTEST_SKIP() << "running as root: permission bits do not stop root from writing";
    }
    const fs::path url = file("readonly", "x");
    fs::permissions(url, fs::perms::owner_read);
    KROFileWriter writer;
    KROErrorPtr error;
    EXPECT_FALSE(writer.initWithURL(url, &error));
    expectFileError(error, EACCES, "KROFile_action_opening");
}

TEST_F(Part_3_1_Writer, WritesValuesInTheHostsByteOrderAndPatchesInPlace) {
    const fs::path url = file("out", "");
    KROFileWriter writer;
    ASSERT_TRUE(writer.initWithURL(url));
    EXPECT_TRUE(writer.writeIntValue(0x11223344));
    EXPECT_TRUE(writer.writeLongLongValue(-2));
    EXPECT_TRUE(writer.writeData(bytesOf("tail")));
    EXPECT_TRUE(writer.writeData({}));
    std::uint64_t position = 0;
    EXPECT_TRUE(writer.getPosition(position));
    EXPECT_EQ(position, 16u);
    EXPECT_TRUE(writer.setPositionToBeginning());
    EXPECT_TRUE(writer.writeIntValue(0x55667788));
    EXPECT_TRUE(writer.setPositionToEnd());
    EXPECT_TRUE(writer.getPosition(position));
    EXPECT_EQ(position, 16u);
    EXPECT_TRUE(writer.setPosition(12));
    EXPECT_TRUE(writer.writeBuffer("TAIL", 4));
    EXPECT_TRUE(writer.flush());

    auto reader = openReader(url);
    std::int32_t first = 0;
    std::int64_t second = 0;
    KROData tail;
    EXPECT_TRUE(reader->getIntValue(first));
    EXPECT_TRUE(reader->getLongLongValue(second));
    EXPECT_TRUE(reader->getData(tail, 4));
    EXPECT_EQ(first, 0x55667788);
    EXPECT_EQ(second, -2);
    EXPECT_EQ(tail, bytesOf("TAIL"));
    EXPECT_EQ(reader->length(), 16u);
}

TEST_F(Part_3_1_Writer, AFullDiskFailsTheWriteOrTheFlushWithENOSPC) {
    if (::access("/dev/full", W_OK) != 0) {
        GTEST_SKIP() << "this machine has no /dev/full";
    }
    KROFileWriter writer;
    ASSERT_TRUE(writer.initWithURL("/dev/full"));
    // A small write lands in the stream's buffer; the flush meets the full disk.
    EXPECT_TRUE(writer.writeIntValue(1));
    KROErrorPtr error;
    EXPECT_FALSE(writer.flush(&error));
    expectFileError(error, ENOSPC, "KROFile_action_synchronizing");
    EXPECT_EQ(error->description(), "Saving the buffered data of the file failed because there "
                                    "is not enough space on the disk.");
    // A block larger than the buffer goes to the disk at once.
    KROFileWriter large;
    ASSERT_TRUE(large.initWithURL("/dev/full"));
    const KROData block(std::size_t{1} << 20, 0x5A);
    EXPECT_FALSE(large.writeData(block, &error));
    expectFileError(error, ENOSPC, "KROFile_action_writing");
    EXPECT_FALSE(large.writeBuffer(block.data(), block.size(), nullptr));
}

TEST_F(Part_3_1_Writer, AFullFileSystemFailsTheWriterWithENOSPC) {
    const fs::path mountPoint = path("small");
    fs::create_directory(mountPoint);
    const std::string answer = runInChild([&]() -> std::string {
        if (!mountSmallTmpfs(mountPoint, 64 << 10)) {
            return cannotMount;
        }
        const fs::path url = mountPoint / "out.wav";
        KROErrorPtr error;
        KROFileWriter writer;
        if (!kro::createFile(url, &error) || !writer.initWithURL(url, &error)) {
            return "cannot open: " + (error ? error->description() : std::string());
        }
        const KROData block(4096, 1);
        for (int index = 0; index < 64; ++index) {
            if (!writer.writeData(block, &error)) {
                break;
            }
        }
        if (!error && writer.flush(&error)) {
            return "the writes all succeeded";
        }
        const std::string writing = KROLocalizedString("KROFile_action_writing");
        const std::string flushing = KROLocalizedString("KROFile_action_synchronizing");
        if (error->className() != "KROFileError" || error->code() != ENOSPC ||
            (error->description() != sentence(writing, *error) &&
             error->description() != sentence(flushing, *error))) {
            return "unexpected error: " + error->description();
        }
        return "ok";
    });
    if (answer == cannotMount) {
        GTEST_SKIP() << "this machine permits no private tmpfs; /dev/full covers ENOSPC";
    }
    EXPECT_EQ(answer, "ok");
}

// ============================================================ URL services

TEST_F(Part_3_1_URL, ExistsExistsAsDirectoryAndExistsAsFile) {
    const fs::path plain = file("a", "x");
    fs::create_directory(path("d"));
    EXPECT_TRUE(kro::exists(plain));
    EXPECT_TRUE(kro::existsAsFile(plain));
    EXPECT_FALSE(kro::existsAsDirectory(plain));
    EXPECT_TRUE(kro::exists(path("d")));
    EXPECT_TRUE(kro::existsAsDirectory(path("d")));
    EXPECT_FALSE(kro::existsAsFile(path("d")));
    EXPECT_FALSE(kro::exists(path("missing")));
    EXPECT_FALSE(kro::existsAsFile(path("missing")));
    EXPECT_FALSE(kro::existsAsDirectory(path("missing")));
    fs::create_symlink(path("missing"), path("dangling"));
    EXPECT_FALSE(kro::exists(path("dangling"))) << "links are followed";
}

TEST_F(Part_3_1_URL, CreateFileCreatesAnEmptyFile) {
    KROErrorPtr error;
    EXPECT_TRUE(kro::createFile(path("new"), &error));
    EXPECT_TRUE(fs::is_regular_file(path("new")));
    EXPECT_EQ(fs::file_size(path("new")), 0u);
}

TEST_F(Part_3_1_URL, CreateFileInsideAMissingDirectoryFailsWithErrno) {
    KROErrorPtr error;
    EXPECT_FALSE(kro::createFile(path("no/such/dir/new"), &error));
    expectFileError(error, ENOENT, "KROFile_action_creatingFile");
    EXPECT_FALSE(kro::createFile(path("no/such/dir/new"), nullptr));
    fs::create_directory(path("folder"));
    EXPECT_FALSE(kro::createFile(path("folder"), &error));
    expectFileError(error, EISDIR, "KROFile_action_creatingFile");
}

TEST_F(Part_3_1_URL, CreateDirectoryCreatesItsIntermediateDirectories) {
    KROErrorPtr error;
    EXPECT_TRUE(kro::createDirectory(path("a/b/c"), &error));
    EXPECT_TRUE(fs::is_directory(path("a/b/c")));
    EXPECT_TRUE(kro::createDirectory(path("a/b/c"), &error)) << "an existing directory is fine";
    EXPECT_TRUE(kro::createDirectory(path("a/b/c/"), &error));
}

TEST_F(Part_3_1_URL, CreateDirectoryWhereAFileStandsFailsWrappingThePlatformError) {
    file("a", "x");
    KROErrorPtr error;
    EXPECT_FALSE(kro::createDirectory(path("a"), &error));
    expectError(error, "KROFileError", 516, KROLocalizedString("KROFile_action_creatingDirectory"));
    EXPECT_FALSE(kro::createDirectory(path("a/b"), &error));
    expectError(error, "KROFileError", 4, KROLocalizedString("KROFile_action_creatingDirectory"));
}

TEST_F(Part_3_1_URL, MoveToRenamesWithinAVolume) {
    const fs::path source = file("a.wav", "data");
    struct stat before {};
    ::stat(source.c_str(), &before);
    KROErrorPtr error;
    EXPECT_TRUE(kro::moveTo(source, path("b.wav"), &error));
    struct stat after {};
    ::stat(path("b.wav").c_str(), &after);
    EXPECT_EQ(before.st_ino, after.st_ino) << "a rename, not a copy";
    EXPECT_FALSE(fs::exists(source));
}

TEST_F(Part_3_1_URL, MoveToRefusesAnExistingTarget) {
    const fs::path source = file("a.wav", "source");
    const fs::path target = file("b.wav", "target");
    KROErrorPtr error;
    EXPECT_FALSE(kro::moveTo(source, target, &error));
    expectError(error, "KROFileError", 516, formattedAction("KROFile_action_moving", "a"));
    EXPECT_EQ(error->description(), "Moving \u201c"
                                    "a"
                                    "\u201d failed because a file of that name already exists.");
    EXPECT_EQ(readFile(source), bytesOf("source"));
    EXPECT_EQ(readFile(target), bytesOf("target"));
    fs::create_directory(path("dir"));
    EXPECT_FALSE(kro::moveTo(path("dir"), target, &error));
    EXPECT_EQ(error->code(), 516);
}

TEST_F(Part_3_1_URL, MoveToOfAMissingSourceFails) {
    KROErrorPtr error;
    EXPECT_FALSE(kro::moveTo(path("missing.wav"), path("b.wav"), &error));
    expectError(error, "KROFileError", 4, formattedAction("KROFile_action_moving", "missing"));
    EXPECT_FALSE(kro::moveTo(path("missing.wav"), path("b.wav"), nullptr));
}

TEST_F(Part_3_1_URL, MoveToADirectoryInsideItselfFails) {
    fs::create_directories(path("d/e"));
    KROErrorPtr error;
    EXPECT_FALSE(kro::moveTo(path("d"), path("d/e/d"), &error));
    expectError(error, "KROError", EINVAL, formattedAction("KROFile_action_moving", "d"));
    EXPECT_TRUE(fs::is_directory(path("d/e")));
}

namespace {

// A directory on another file system than dir, or empty.
fs::path otherFileSystem(const fs::path& dir) {
    struct stat here {};
    ::stat(dir.c_str(), &here);
    for (const char* candidate : {"/dev/shm", "/run", "/tmp", "/var/tmp"}) {
        struct stat there {};
        if (::stat(candidate, &there) == 0 && there.st_dev != here.st_dev &&
            ::access(candidate, W_OK) == 0) {
            std::string name = std::string(candidate) + "/kro-files-XXXXXX";
            if (::mkdtemp(name.data())) {
                return name;
            }
        }
    }
    return {};
}

// Items of a directory whose name marks a temporary of KROFileTransfer.
std::vector<std::string> leftovers(const fs::path& dir) {
    std::vector<std::string> names;
    for (const auto& item : fs::directory_iterator(dir)) {
        if (item.path().filename().string().find(".kro-") != std::string::npos) {
            names.push_back(item.path().filename().string());
        }
    }
    return names;
}

} // namespace

TEST_F(Part_3_1_URL, MoveToWorksAcrossFileSystems) {
    const fs::path other = otherFileSystem(directory_);
    if (other.empty()) {
        GTEST_SKIP() << "no second writable file system on this machine";
    }
    KROData bytes(300000);
    for (std::size_t index = 0; index < bytes.size(); ++index) {
        bytes[index] = std::uint8_t(index * 7);
    }
    const fs::path source = path("a.wav");
    writeFile(source, bytes);
    ::chmod(source.c_str(), 0640);
    const timespec times[2] = {{1000000000, 0}, {1234567890, 123456789}};
    ::utimensat(AT_FDCWD, source.c_str(), times, 0);
    const bool hasAttribute = setForkAttribute(source, bytesOf("fork"));

    KROErrorPtr error;
    EXPECT_TRUE(kro::moveTo(source, other / "a.wav", &error))
        << (error ? error->description() : "");
    EXPECT_FALSE(fs::exists(source));
    EXPECT_EQ(readFile(other / "a.wav"), bytes);
    struct stat moved {};
    ::stat((other / "a.wav").c_str(), &moved);
    EXPECT_EQ(moved.st_mode & 07777, 0640u);
    EXPECT_EQ(moved.st_mtim.tv_sec, 1234567890);
    if (hasAttribute) {
        std::array<char, 16> value{};
        const ssize_t size =
            ::getxattr((other / "a.wav").c_str(), KROResourceForkFinder::extendedAttributeName,
                       value.data(), value.size());
        if (size >= 0 || errno != ENOTSUP) {
            EXPECT_EQ(std::string(value.data(), std::size_t(std::max<ssize_t>(size, 0))), "fork");
        }
    }
    EXPECT_TRUE(leftovers(other).empty());

    // Refused before any byte moves when the target exists.
    const fs::path second = file("b.wav", "second");
    writeFile(other / "b.wav", "occupied");
    EXPECT_FALSE(kro::moveTo(second, other / "b.wav", &error));
    expectError(error, "KROFileError", 516, formattedAction("KROFile_action_moving", "b"));
    EXPECT_EQ(readFile(second), bytesOf("second"));
    EXPECT_EQ(readFile(other / "b.wav"), bytesOf("occupied"));

    // A directory with its items, and a link inside it.
    fs::create_directories(path("album/disc 1"));
    writeFile(path("album/disc 1/track.wav"), "track");
    fs::create_symlink("disc 1/track.wav", path("album/link.wav"));
    EXPECT_TRUE(kro::moveTo(path("album"), other / "album", &error));
    EXPECT_FALSE(fs::exists(path("album")));
    EXPECT_EQ(readFile(other / "album/disc 1/track.wav"), bytesOf("track"));
    EXPECT_TRUE(fs::is_symlink(other / "album/link.wav"));
    EXPECT_EQ(readFile(other / "album/link.wav"), bytesOf("track"));
    EXPECT_TRUE(leftovers(other).empty());
    fs::remove_all(other);
}

TEST_F(Part_3_1_URL, AMoveAcrossFileSystemsThatCannotRemoveItsSourceTakesBackItsCopy) {
    if (::geteuid() == 0) {
        GTEST_SKIP() << "running as root: a read-only directory does not stop root";
    }
    const fs::path other = otherFileSystem(directory_);
    if (other.empty()) {
        GTEST_SKIP() << "no second writable file system on this machine";
    }
    fs::create_directory(path("locked"));
    writeFile(path("locked/a.wav"), "stays");
    fs::permissions(path("locked"), fs::perms::owner_read | fs::perms::owner_exec);
    KROErrorPtr error;
    EXPECT_FALSE(kro::moveTo(path("locked/a.wav"), other / "a.wav", &error));
    fs::permissions(path("locked"), fs::perms::owner_all);
    expectError(error, "KROFileError", 513, formattedAction("KROFile_action_moving", "a"));
    EXPECT_EQ(readFile(path("locked/a.wav")), bytesOf("stays"));
    EXPECT_FALSE(fs::exists(other / "a.wav")) << "the copy is taken back";
    EXPECT_TRUE(leftovers(other).empty());
    fs::remove_all(other);
}

TEST_F(Part_3_1_URL, MoveToAFullFileSystemLeavesNoHalfMovedFile) {
    const fs::path mountPoint = path("small");
    fs::create_directory(mountPoint);
    const fs::path source = path("big.wav");
    writeFile(source, KROData(std::size_t{1} << 20, 0x42));
    const std::string answer = runInChild([&]() -> std::string {
        if (!mountSmallTmpfs(mountPoint, 64 << 10)) {
            return cannotMount;
        }
        KROErrorPtr error;
        if (kro::moveTo(source, mountPoint / "big.wav", &error)) {
            return "the move succeeded on a 64 KiB volume";
        }
        if (error->className() != "KROFileError" || error->code() != 640 ||
            error->description() !=
                sentence(formattedAction("KROFile_action_moving", "big"), *error)) {
            return "unexpected error: " + error->description();
        }
        if (!fs::is_empty(mountPoint)) {
            return "the target volume is not empty";
        }
        return "ok";
    });
    if (answer == cannotMount) {
        GTEST_SKIP() << "this machine permits no private tmpfs";
    }
    EXPECT_EQ(answer, "ok");
    EXPECT_EQ(fs::file_size(source), std::uintmax_t{1} << 20) << "the source stays whole";
}

TEST_F(Part_3_1_URL, CopyToCopiesAndRefusesAnExistingTarget) {
    const fs::path source = file("a.wav", "payload");
    KROErrorPtr error;
    EXPECT_TRUE(kro::copyTo(source, source, &error)) << "equal URLs succeed at once";
    EXPECT_TRUE(kro::copyTo(source, path("b.wav"), &error));
    EXPECT_EQ(readFile(path("b.wav")), bytesOf("payload"));
    EXPECT_EQ(readFile(source), bytesOf("payload"));
    EXPECT_FALSE(kro::copyTo(source, path("b.wav"), &error));
    expectError(error, "KROFileError", 516, formattedAction("KROFile_action_copying", "a"));
    EXPECT_FALSE(kro::copyTo(path("missing.wav"), path("c.wav"), &error));
    expectError(error, "KROFileError", 4, formattedAction("KROFile_action_copying", "missing"));
    EXPECT_FALSE(kro::copyTo(source, path("no/dir/c.wav"), &error));
    EXPECT_EQ(error->code(), 4);
    EXPECT_TRUE(leftovers(directory_).empty());
}

TEST_F(Part_3_1_URL, CopyToCopiesADirectoryWithEverythingInIt) {
    fs::create_directories(path("src/inner"));
    writeFile(path("src/one"), "1");
    writeFile(path("src/inner/two"), "22");
    KROErrorPtr error;
    EXPECT_TRUE(kro::copyTo(path("src"), path("dst"), &error));
    EXPECT_EQ(readFile(path("dst/one")), bytesOf("1"));
    EXPECT_EQ(readFile(path("dst/inner/two")), bytesOf("22"));
    EXPECT_FALSE(kro::copyTo(path("src"), path("src/inner/copy"), &error)) << "into itself";
    EXPECT_EQ(error->code(), EINVAL);
    EXPECT_TRUE(leftovers(path("src/inner")).empty());
}

TEST_F(Part_3_1_URL, DeleteRemovesAFileOrADirectory) {
    const fs::path plain = file("a", "x");
    fs::create_directories(path("d/e"));
    writeFile(path("d/e/f"), "y");
    KROErrorPtr error;
    EXPECT_TRUE(kro::deleteItem(plain, &error));
    EXPECT_TRUE(kro::deleteItem(path("d"), &error));
    EXPECT_FALSE(fs::exists(plain));
    EXPECT_FALSE(fs::exists(path("d")));
    EXPECT_FALSE(kro::deleteItem(path("d.wav"), &error));
    expectError(error, "KROFileError", 4, formattedAction("KROFile_action_deleting", "d"));
}

TEST_F(Part_3_1_URL, EmptyDirectoryDeletesEveryItem) {
    fs::create_directories(path("d/sub"));
    writeFile(path("d/a"), "a");
    writeFile(path("d/.hidden"), "h");
    KROErrorPtr error;
    EXPECT_TRUE(kro::emptyDirectory(path("d"), &error));
    EXPECT_TRUE(fs::is_directory(path("d")));
    EXPECT_TRUE(fs::is_empty(path("d")));
    EXPECT_FALSE(kro::emptyDirectory(path("missing"), &error));
    expectError(error, "KROFileError", 4,
                formattedAction("KROFile_action_gettingDirectoryContents", "missing"));
}

TEST_F(Part_3_1_URL, CopyItemsInDirectoryToDirectorySkipsNamesThatExist) {
    fs::create_directories(path("src/sub"));
    writeFile(path("src/a"), "new a");
    writeFile(path("src/b"), "new b");
    writeFile(path("src/sub/c"), "c");
    fs::create_directories(path("dst/deeper"));
    writeFile(path("dst/deeper/../a"), "old a");
    KROErrorPtr error;
    EXPECT_TRUE(kro::copyItemsInDirectoryToDirectory(path("src"), path("dst"), &error));
    EXPECT_EQ(readFile(path("dst/a")), bytesOf("old a"));
    EXPECT_EQ(readFile(path("dst/b")), bytesOf("new b"));
    EXPECT_EQ(readFile(path("dst/sub/c")), bytesOf("c"));
    EXPECT_TRUE(kro::copyItemsInDirectoryToDirectory(path("src"), path("fresh/x"), &error))
        << "the target is created with its parents";
    EXPECT_EQ(readFile(path("fresh/x/a")), bytesOf("new a"));
    EXPECT_FALSE(kro::copyItemsInDirectoryToDirectory(path("missing"), path("dst2"), &error));
    EXPECT_EQ(error->code(), 4);
}

TEST_F(Part_3_1_URL, ContentsOfDirectoryListsTheDirectItems) {
    fs::create_directories(path("d/sub"));
    writeFile(path("d/b"), "b");
    writeFile(path("d/a"), "a");
    writeFile(path("d/sub/deep"), "x");
    KROErrorPtr error;
    const auto items = kro::contentsOfDirectory(path("d"), &error);
    ASSERT_TRUE(items);
    EXPECT_EQ(*items, (std::vector<fs::path>{path("d/a"), path("d/b"), path("d/sub")}));
}

TEST_F(Part_3_1_URL, ContentsOfDirectoryOfAMissingDirectoryOrAFileFails) {
    KROErrorPtr error;
    EXPECT_FALSE(kro::contentsOfDirectory(path("missing/"), &error));
    expectError(error, "KROFileError", 4,
                formattedAction("KROFile_action_gettingDirectoryContents", "missing"));
    EXPECT_EQ(error->description(), "Listing the contents of the folder \u201cmissing\u201d failed "
                                    "because the file does not exist.");
    EXPECT_FALSE(kro::contentsOfDirectory(file("plain", "x"), &error));
    EXPECT_EQ(error->code(), 4);
}

TEST_F(Part_3_1_URL, ContentsOfAnUnreadableDirectoryFailsWithoutPermission) {
    if (::geteuid() == 0) {
        GTEST_SKIP() << "running as root: a mode 000 directory stays readable to root";
    }
    fs::create_directory(path("locked"));
    fs::permissions(path("locked"), fs::perms::none);
    KROErrorPtr error;
    EXPECT_FALSE(kro::contentsOfDirectory(path("locked"), &error));
    fs::permissions(path("locked"), fs::perms::owner_all);
    expectError(error, "KROFileError", 257,
                formattedAction("KROFile_action_gettingDirectoryContents", "locked"));
}

TEST_F(Part_3_1_URL, GetSizeOfDirectorySumsEveryItemDeeply) {
    fs::create_directories(path("d/e/f"));
    writeFile(path("d/one"), std::string(100, 'x'));
    writeFile(path("d/e/two"), std::string(20, 'x'));
    writeFile(path("d/e/f/three"), std::string(3, 'x'));
    std::uint64_t size = 0;
    KROErrorPtr error;
    EXPECT_TRUE(kro::getSizeOfDirectory(path("d"), size, &error));
    EXPECT_EQ(size, 123u);
    size = 55;
    EXPECT_FALSE(kro::getSizeOfDirectory(path("missing"), size, &error));
    EXPECT_EQ(size, 0u);
    expectError(error, "KROFileError", 4, formattedAction("KROFile_action_gettingSize", "missing"));
}

TEST_F(Part_3_1_URL, GetSizeOfDirectoryWithAnUnreadableItemAnswers0AndFalse) {
    if (::geteuid() == 0) {
        GTEST_SKIP() << "running as root: a mode 000 directory stays readable to root";
    }
    fs::create_directories(path("d/locked"));
    writeFile(path("d/one"), "12345");
    fs::permissions(path("d/locked"), fs::perms::none);
    std::uint64_t size = 9;
    KROErrorPtr error;
    EXPECT_FALSE(kro::getSizeOfDirectory(path("d"), size, &error));
    EXPECT_EQ(size, 0u);
    fs::permissions(path("d/locked"), fs::perms::owner_all);
}

TEST_F(Part_3_1_URL, GetSizeOfFile) {
    std::uint64_t size = 0;
    KROErrorPtr error;
    EXPECT_TRUE(kro::getSizeOfFile(file("a", "12345"), size, &error));
    EXPECT_EQ(size, 5u);
    EXPECT_FALSE(kro::getSizeOfFile(path("missing.wav"), size, &error));
    expectError(error, "KROFileError", 4,
                formattedAction("KROFile_action_gettingSize", "missing.wav"));
}

TEST_F(Part_3_1_URL, TemporaryDirectoryFollowsTMPDIR) {
    const std::string answer = runInChild([&] {
        ::setenv("TMPDIR", directory_.c_str(), 1);
        const fs::path set = kro::temporaryDirectory();
        ::setenv("TMPDIR", "relative/path", 1);
        const fs::path relative = kro::temporaryDirectory();
        ::unsetenv("TMPDIR");
        KROErrorPtr error;
        const fs::path unset = kro::temporaryDirectory(fs::path("/x"), &error);
        return set.string() + "|" + relative.string() + "|" + unset.string() + "|" +
               (error ? "error" : "none");
    });
    EXPECT_EQ(answer, directory_.string() + "|/tmp|/tmp|none");
}

TEST_F(Part_3_1_URL, AvailableBytesOnVolume) {
    KROErrorPtr error;
    EXPECT_GT(kro::availableBytesOnVolume(directory_, &error), 0u);
    EXPECT_FALSE(error);
    EXPECT_EQ(kro::availableBytesOnVolume(path("missing"), &error), 0u);
    expectError(error, "KROFileError", 4,
                formattedAction("KROFile_action_gettingAvailableBytes", "missing"));
}

TEST_F(Part_3_1_URL, ModificationDate) {
    const fs::path url = file("a", "x");
    const timespec times[2] = {{1000000000, 0}, {1500000000, 250000000}};
    ASSERT_EQ(::utimensat(AT_FDCWD, url.c_str(), times, 0), 0);
    KROErrorPtr error;
    const auto date = kro::modificationDate(url, &error);
    ASSERT_TRUE(date);
    EXPECT_EQ(
        std::chrono::duration_cast<std::chrono::milliseconds>(date->time_since_epoch()).count(),
        1500000000250LL);
    EXPECT_FALSE(kro::modificationDate(path("missing"), &error));
    expectError(error, "KROFileError", 4,
                formattedAction("KROFile_action_gettingModificationDate", "missing"));
}

TEST_F(Part_3_1_URL, FilenameIsTheLastComponentWithoutItsExtension) {
    EXPECT_EQ(kro::filename("/music/song.wav"), "song");
    EXPECT_EQ(kro::filename("/music/archive.tar.gz"), "archive.tar");
    EXPECT_EQ(kro::filename("/music/album/"), "album");
    EXPECT_EQ(kro::filename("/music/.hidden"), ".hidden");
    EXPECT_EQ(kro::filename("plain"), "plain");
    EXPECT_EQ(kro::lastPathComponent("/music/album/"), "album");
    EXPECT_EQ(kro::lastPathComponent("/"), "/");
}

TEST_F(Part_3_1_URL, SecurityScopedAccessIsANoOp) {
    EXPECT_FALSE(kro::startAccessingSecurityScopedResource(directory_));
    kro::stopAccessingSecurityScopedResource(directory_);
}

TEST_F(Part_3_1_URL, PublicDirectoryFollowsXdgUserDirsAndIsKeptForTheProcess) {
    const fs::path home = path("home");
    fs::create_directories(home / ".config");
    writeFile(home / ".config/user-dirs.dirs", "# written by xdg-user-dirs-update\n"
                                               "XDG_DESKTOP_DIR=\"$HOME/Desktop\"\n"
                                               "XDG_DOCUMENTS_DIR=\"$HOME/Papers\"\n");
    const auto publicWith = [&](std::function<void()> environment) {
        return runInChild([&] {
            ::setenv("HOME", home.c_str(), 1);
            ::unsetenv("XDG_CONFIG_HOME");
            ::unsetenv("XDG_DOCUMENTS_DIR");
            environment();
            const fs::path first = kro::publicDirectory();
            ::setenv("HOME", "/elsewhere", 1);
            const fs::path second = kro::publicDirectory();
            return first.string() + (first == second ? "" : " changed to " + second.string());
        });
    };
    EXPECT_EQ(publicWith([] {}), (home / "Papers").string());
    EXPECT_EQ(publicWith([] { ::setenv("XDG_DOCUMENTS_DIR", "/from/environment", 1); }),
              (home / "Papers").string())
        << "the file is sourced over the environment, as xdg-user-dir does";

    const fs::path config = path("config");
    fs::create_directories(config);
    writeFile(config / "user-dirs.dirs", "XDG_DOCUMENTS_DIR=\"/absolute/docs\"\n");
    EXPECT_EQ(publicWith([&] { ::setenv("XDG_CONFIG_HOME", config.c_str(), 1); }),
              "/absolute/docs");
    fs::remove(home / ".config/user-dirs.dirs");
    EXPECT_EQ(publicWith([] { ::setenv("XDG_DOCUMENTS_DIR", "/from/environment", 1); }),
              "/from/environment");
    EXPECT_EQ(publicWith([] {}), (home / "Documents").string());
}

TEST_F(Part_3_1_URL, PrivateDirectoryIsCreatedInsideThePublicDirectoryAndKept) {
    const fs::path home = path("home");
    fs::create_directories(home);
    const std::string answer = runInChild([&] {
        ::setenv("HOME", home.c_str(), 1);
        ::unsetenv("XDG_CONFIG_HOME");
        ::unsetenv("XDG_DOCUMENTS_DIR");
        KROErrorPtr error;
        const fs::path first = kro::privateDirectory(&error);
        const bool created = fs::is_directory(home / "Documents/.private");
        fs::remove(first);
        const fs::path second = kro::privateDirectory(&error);
        return first.string() + "|" + (created ? "created" : "absent") + "|" +
               (second == first ? "kept" : "other") + "|" +
               (fs::exists(first) ? "recreated" : "not recreated");
    });
    EXPECT_EQ(answer, (home / "Documents/.private").string() + "|created|kept|not recreated");
}

TEST_F(Part_3_1_URL, APrivateDirectoryThatCannotBeCreatedAnswersEmptyThenTheKeptURL) {
    const fs::path home = path("home");
    fs::create_directories(home);
    writeFile(home / "Documents", "a file where the documents folder belongs");
    const std::string answer = runInChild([&] {
        ::setenv("HOME", home.c_str(), 1);
        ::unsetenv("XDG_CONFIG_HOME");
        ::unsetenv("XDG_DOCUMENTS_DIR");
        KROErrorPtr error;
        const fs::path first = kro::privateDirectory(&error);
        const std::string failure =
            error ? error->className() + " " + std::to_string(error->code()) : "none";
        KROErrorPtr again;
        const fs::path second = kro::privateDirectory(&again);
        std::string answer("[");
        answer += first.string() + "]|" + failure + "|" + second.string() + "|";
        return answer + (again ? "error" : "none");
    });
    // Part 3.1 (required): the kept URL comes back without a second attempt.
    EXPECT_EQ(answer, "[]|KROFileError 4|" + (home / "Documents/.private").string() + "|none");
}

TEST_F(Part_3_1_URL, SupportDirectoryIsTheDataHomePlusTheApplicationName) {
    const fs::path data = path("data");
    const std::string answer = runInChild([&] {
        ::setenv("XDG_DATA_HOME", data.c_str(), 1);
        kro::setApplicationName("KROTestApp");
        KROErrorPtr error;
        const fs::path support = kro::supportDirectory(&error);
        return support.string() + "|" + (fs::is_directory(support) ? "created" : "absent");
    });
    EXPECT_EQ(answer, (data / "KROTestApp").string() + "|created");

    const fs::path home = path("home");
    const std::string fallback = runInChild([&] {
        ::unsetenv("XDG_DATA_HOME");
        ::setenv("HOME", home.c_str(), 1);
        return kro::supportDirectory().string() + "|" + kro::applicationName();
    });
    EXPECT_EQ(fallback, (home / ".local/share" / program_invocation_short_name).string() + "|" +
                            program_invocation_short_name);
}

// ============================================================ resource forks

TEST_F(Part_3_1_Fork, ResourcesCarryTypeIDNameAndDataInFileOrder) {
    file("song.sd2", "audio");
    writeFile(path("._song.sd2"), makeFork(sampleResources));
    auto reader = openReader(path("song.sd2"));
    ASSERT_TRUE(reader->resources());
    const auto& resources = *reader->resources();
    ASSERT_EQ(resources.size(), 3u);
    EXPECT_EQ(resources[0]->type(), fourCharCode("STR "));
    EXPECT_EQ(resources[0]->ID(), 1000);
    EXPECT_EQ(resources[0]->name(), "sample-size");
    EXPECT_EQ(resources[0]->data(), bytesOf("\x01"
                                            "2"));
    EXPECT_EQ(resources[1]->ID(), 1001);
    EXPECT_EQ(resources[1]->name(), "") << "no name";
    EXPECT_EQ(resources[1]->data(), bytesOf("\x05"
                                            "44100"));
    EXPECT_EQ(resources[2]->type(), fourCharCode("sdML"));
    EXPECT_EQ(resources[2]->ID(), -1) << "sign-extended from 16 bits";
    EXPECT_EQ(resources[2]->name(), "Caf\u00E9") << "Mac Roman 0x8E";
    EXPECT_EQ(resources[2]->data(), bytesOf("marks"));
    EXPECT_EQ(resources[2]->description(), "KROFileResource 'sdML' -1 \"Caf\u00E9\" (5 bytes)");
}

TEST_F(Part_3_1_Fork, ResourcePropertiesAreReadWrite) {
    KROFileResource resource;
    resource.setType(fourCharCode("ICON"));
    resource.setID(-32768);
    resource.setName("name");
    resource.setData(bytesOf("bits"));
    EXPECT_EQ(resource.type(), fourCharCode("ICON"));
    EXPECT_EQ(resource.ID(), -32768);
    EXPECT_EQ(resource.name(), "name");
    EXPECT_EQ(resource.data(), bytesOf("bits"));
}

TEST_F(Part_3_1_Fork, TheForkIsLookedForInTheNamedForkPathFirst) {
    // Linux has no ..namedfork; a directory standing for the file exercises the place.
    fs::create_directories(path("song.sd2/..namedfork"));
    writeFile(path("song.sd2/..namedfork/rsrc"),
              makeFork({{fourCharCode("TEXT"), 1, std::nullopt, bytesOf("named")}}));
    writeFile(path("._song.sd2"),
              makeFork({{fourCharCode("TEXT"), 2, std::nullopt, bytesOf("beside")}}));
    const KROData fork = KROResourceForkFinder::forkOfFile(path("song.sd2"));
    const auto resources = KROResourceForkParser::resourcesFromFork(fork);
    ASSERT_TRUE(resources);
    ASSERT_EQ(resources->size(), 1u);
    EXPECT_EQ((*resources)[0]->data(), bytesOf("named"));
}

TEST_F(Part_3_1_Fork, TheSearchOrderIsBesideThenAppleDoubleDirectoryThenAttribute) {
    const fs::path url = file("song.sd2", "audio");
    const auto forkSaying = [](const char* text) {
        return makeFork({{fourCharCode("TEXT"), 1, std::nullopt, bytesOf(text)}});
    };
    const auto found = [&url] {
        const auto resources =
            KROResourceForkParser::resourcesFromFork(KROResourceForkFinder::forkOfFile(url));
        return resources && resources->size() == 1
                   ? std::string((*resources)[0]->data().begin(), (*resources)[0]->data().end())
                   : std::string("none");
    };
    const bool attribute = setForkAttribute(url, makeAppleDouble(forkSaying("attribute")));
    if (attribute) {
        EXPECT_EQ(found(), "attribute");
    }
    fs::create_directory(path(".AppleDouble"));
    writeFile(path(".AppleDouble/song.sd2"), makeAppleDouble(forkSaying("netatalk")));
    EXPECT_EQ(found(), "netatalk");
    writeFile(path("._song.sd2"), forkSaying("beside"));
    EXPECT_EQ(found(), "beside");
    EXPECT_EQ(KROResourceForkFinder::sidecarPaths(url),
              (std::vector<fs::path>{url / "..namedfork/rsrc", path("._song.sd2"),
                                     path(".AppleDouble/song.sd2")}));
    if (!attribute) {
        GTEST_SKIP() << "this file system takes no user extended attributes";
    }
}

TEST_F(Part_3_1_Fork, AnAppleDoubleFileBesideTheFileIsUnderstood) {
    file("song.sd2", "audio");
    writeFile(path("._song.sd2"), makeAppleDouble(makeFork(sampleResources)));
    auto reader = openReader(path("song.sd2"));
    ASSERT_TRUE(reader->resources());
    EXPECT_EQ(reader->resources()->size(), 3u);
}

TEST_F(Part_3_1_Fork, ARawForkInTheExtendedAttributeIsUnderstood) {
    const fs::path url = file("song.sd2", "audio");
    if (!setForkAttribute(url, makeFork(sampleResources))) {
        GTEST_SKIP() << "this file system takes no user extended attributes: "
                     << std::strerror(errno);
    }
    auto reader = openReader(url);
    ASSERT_TRUE(reader->resources());
    EXPECT_EQ(reader->resources()->size(), 3u);
}

TEST_F(Part_3_1_Fork, AnAppleDoubleFileWithoutAForkEntryIsPassedOver) {
    const fs::path url = file("song.sd2", "audio");
    writeFile(path("._song.sd2"), makeAppleDouble({}, false));
    fs::create_directory(path(".AppleDouble"));
    writeFile(path(".AppleDouble/song.sd2"), makeAppleDouble(makeFork(sampleResources)));
    auto reader = openReader(url);
    ASSERT_TRUE(reader->resources());
    EXPECT_EQ(reader->resources()->size(), 3u);
}

TEST_F(Part_3_1_Fork, AnAppleDoubleEntryPastItsEndIsRejected) {
    const fs::path url = file("song.sd2", "audio");
    KROData container = makeAppleDouble(makeFork(sampleResources));
    putBigEndian(container, 26 + 12 + 8, container.size(), 4); // fork length past the end
    writeFile(path("._song.sd2"), container);
    EXPECT_FALSE(KROResourceForkParser::forkFromContainer(container));
    auto reader = openReader(url);
    ASSERT_TRUE(reader->resources());
    EXPECT_TRUE(reader->resources()->empty()) << "no usable fork anywhere";

    KROData offsetPast = makeAppleDouble(makeFork(sampleResources));
    putBigEndian(offsetPast, 26 + 12 + 4, 0xFFFFFFF0u, 4);
    EXPECT_FALSE(KROResourceForkParser::forkFromContainer(offsetPast));
    KROData entriesPast = makeAppleDouble(makeFork(sampleResources));
    putBigEndian(entriesPast, 24, 0xFFFF, 2);
    putBigEndian(entriesPast, 26 + 12, 7, 4); // no entry 2 before the table runs out
    EXPECT_FALSE(KROResourceForkParser::forkFromContainer(entriesPast));
    EXPECT_FALSE(KROResourceForkParser::forkFromContainer(KROData(20, 0x00)) == std::nullopt)
        << "bytes that are no AppleDouble file are a raw fork";
}

TEST_F(Part_3_1_Fork, AnEmptyForkYieldsAnEmptyArray) {
    const fs::path url = file("song.sd2", "audio");
    writeFile(path("._song.sd2"), "");
    auto reader = openReader(url);
    ASSERT_TRUE(reader->resources());
    EXPECT_TRUE(reader->resources()->empty());
    EXPECT_TRUE(KROResourceForkParser::resourcesFromFork({})->empty());
}

TEST_F(Part_3_1_Fork, AForkWithNoTypesYieldsAnEmptyArray) {
    const KROData fork = makeFork({});
    const auto resources = KROResourceForkParser::resourcesFromFork(fork);
    ASSERT_TRUE(resources);
    EXPECT_TRUE(resources->empty());
}

TEST_F(Part_3_1_Fork, EachCheckOfTheHeaderRejectsTheFork) {
    const KROData fork = makeFork(sampleResources);
    ASSERT_TRUE(KROResourceForkParser::resourcesFromFork(fork));
    const auto rejects = [](KROData damaged) {
        return !KROResourceForkParser::resourcesFromFork(damaged).has_value();
    };
    KROData dataLength = fork;
    putBigEndian(dataLength, 8, 1, 4);
    EXPECT_TRUE(rejects(dataLength)) << "data offset plus data length is not the map offset";
    KROData mapLength = fork;
    putBigEndian(mapLength, 12, 1000000, 4);
    EXPECT_TRUE(rejects(mapLength)) << "the map does not end with the fork";
    const std::size_t map = mapOffsetOf(fork);
    KROData typeList = fork;
    putBigEndian(typeList, map + 24, 0x7000, 2);
    EXPECT_TRUE(rejects(typeList)) << "the type list lies beyond the end";
    KROData nameList = fork;
    putBigEndian(nameList, map + 26, 0x7000, 2);
    EXPECT_TRUE(rejects(nameList)) << "the name list lies beyond the end";
    EXPECT_TRUE(rejects(KROData(fork.begin(), fork.begin() + 10))) << "a truncated header";
    KROData truncated(fork.begin(), fork.end() - 3);
    EXPECT_TRUE(rejects(truncated)) << "a truncated map";
}

TEST_F(Part_3_1_Fork, EntriesThatPointPastTheEndOfTheForkAreRejectedCleanly) {
    const KROData fork = makeFork(sampleResources);
    const std::size_t typeList = mapOffsetOf(fork) + 28;
    const std::size_t references = typeList + 2 + 8 * 2;
    const auto rejects = [](const KROData& damaged) {
        return !KROResourceForkParser::resourcesFromFork(damaged).has_value();
    };
    KROData dataOffset = fork;
    putBigEndian(dataOffset, references + 4, 0x00FFFFF0, 4);
    EXPECT_TRUE(rejects(dataOffset)) << "resource data past the end";
    KROData dataLength = fork;
    putBigEndian(dataLength, 256, 0xFFFFFFFF, 4);
    EXPECT_TRUE(rejects(dataLength)) << "a data length past the end";
    KROData typeCount = fork;
    putBigEndian(typeCount, typeList, 0x7FFF, 2);
    EXPECT_TRUE(rejects(typeCount)) << "more types than the fork holds";
    KROData referenceCount = fork;
    putBigEndian(referenceCount, typeList + 2 + 4, 0x7FFF, 2);
    EXPECT_TRUE(rejects(referenceCount)) << "more references than the fork holds";
    KROData referenceList = fork;
    putBigEndian(referenceList, typeList + 2 + 6, 0xFFF0, 2);
    EXPECT_TRUE(rejects(referenceList)) << "a reference list past the end";
}

TEST_F(Part_3_1_Fork, ANameThatRunsPastTheEndOfTheForkIsCutAtTheEnd) {
    // libsndfile's SD2 forks end inside their last name.
    const KROData fork = makeFork({{fourCharCode("TEXT"), 1, std::string("Marker"), bytesOf("m")}});
    KROData longer = fork;
    longer[longer.size() - 7] = 9;
    auto resources = KROResourceForkParser::resourcesFromFork(longer);
    ASSERT_TRUE(resources);
    EXPECT_EQ((*resources)[0]->name(), "Marker");
    EXPECT_EQ((*resources)[0]->data(), bytesOf("m"));

    // Part 3.1 reads the length byte as signed: -128 runs to the end as well.
    KROData negative = fork;
    negative[negative.size() - 7] = 0x80;
    resources = KROResourceForkParser::resourcesFromFork(negative);
    ASSERT_TRUE(resources);
    EXPECT_EQ((*resources)[0]->name(), "Marker");

    // A name that starts past the end is empty.
    KROData beyond = fork;
    putBigEndian(beyond, mapOffsetOf(fork) + 28 + 2 + 8 + 2, 0x7FFF, 2);
    resources = KROResourceForkParser::resourcesFromFork(beyond);
    ASSERT_TRUE(resources);
    EXPECT_EQ((*resources)[0]->name(), "");
}

TEST_F(Part_3_1_Fork, AttributeBitsOfTheDataOffsetAreNotMaskedOff) {
    // Part 3.1 (required): the attribute byte is part of the offset, so the
    // resource resolves 16 MiB away, outside this fork.
    const KROData plain = makeFork({{fourCharCode("TEXT"), 1, std::nullopt, bytesOf("x"), 0}});
    const KROData flagged = makeFork({{fourCharCode("TEXT"), 1, std::nullopt, bytesOf("x"), 1}});
    EXPECT_TRUE(KROResourceForkParser::resourcesFromFork(plain));
    EXPECT_FALSE(KROResourceForkParser::resourcesFromFork(flagged));
}

TEST_F(Part_3_1_Fork, OverlappingListsCannotMultiplyTheFork) {
    // Two types sharing one reference list: each walk alone is in bounds.
    KROData fork = makeFork({{fourCharCode("AAAA"), 1, std::nullopt, KROData(1000, 1)},
                             {fourCharCode("BBBB"), 2, std::nullopt, KROData(1000, 2)}});
    const std::size_t typeList = mapOffsetOf(fork) + 28;
    putBigEndian(fork, typeList + 2 + 8 + 6, 2 + 16, 2); // second type: the first one's list
    const auto shared = KROResourceForkParser::resourcesFromFork(fork);
    ASSERT_TRUE(shared) << "two references of 1000 bytes still fit in the fork";
    EXPECT_EQ((*shared)[1]->data(), KROData(1000, 1));

    // A thousand references that all name one large resource would take far
    // more than the fork holds.
    std::vector<TestResource> resources;
    resources.push_back({fourCharCode("BIG "), 0, std::nullopt, KROData(3000, 7)});
    for (std::uint32_t index = 1; index < 1000; ++index) {
        resources.push_back({0x41414100 + index, 1, std::nullopt, {}});
    }
    KROData many = makeFork(resources);
    const std::size_t references = mapOffsetOf(many) + 28 + 2 + 8 * 1000;
    for (std::size_t index = 0; index < 1000; ++index) {
        putBigEndian(many, references + 12 * index + 4, 0, 4);
    }
    EXPECT_FALSE(KROResourceForkParser::resourcesFromFork(many));
}

TEST_F(Part_3_1_Fork, MacRomanNamesBecomeUTF8) {
    const KROData text = {'a', 0x80, 0xA5, 0xDB, 0xF0, 0xFF};
    EXPECT_EQ(KROResourceForkParser::stringFromMacRoman(text), "a\u00C4\u2022\u20AC\uF8FF\u02C7");
}

// ------------------------------------------------- Sound Designer II by libsndfile

namespace {

// A 16-bit stereo WAVE file of 441 frames at 44.1 kHz.
KROData makeWave() {
    KROData bytes;
    auto little = [&bytes](std::uint32_t value, int size) {
        for (int index = 0; index < size; ++index) {
            bytes.push_back(std::uint8_t(value >> (8 * index)));
        }
    };
    const std::uint32_t frames = 441;
    const std::uint32_t dataSize = frames * 4;
    bytes.insert(bytes.end(), {'R', 'I', 'F', 'F'});
    little(36 + dataSize, 4);
    bytes.insert(bytes.end(), {'W', 'A', 'V', 'E', 'f', 'm', 't', ' '});
    little(16, 4), little(1, 2), little(2, 2), little(44100, 4), little(44100 * 4, 4);
    little(4, 2), little(16, 2);
    bytes.insert(bytes.end(), {'d', 'a', 't', 'a'});
    little(dataSize, 4);
    for (std::uint32_t frame = 0; frame < frames; ++frame) {
        little(frame * 37, 2), little(0xFFFF - frame * 37, 2);
    }
    return bytes;
}

std::string pascalText(const KROData& data) {
    return data.empty() ? std::string() : std::string(data.begin() + 1, data.end());
}

} // namespace

TEST_F(Part_3_1_Fork, ASoundDesignerIIFileMadeByLibsndfileHasItsForkFoundAndParsed) {
    if (std::system("command -v sndfile-convert >/dev/null 2>&1") != 0) {
        GTEST_SKIP() << "sndfile-convert is not installed (package sndfile-programs)";
    }
    writeFile(path("in.wav"), makeWave());
    const std::string command = "sndfile-convert '" + path("in.wav").string() + "' '" +
                                path("out.sd2").string() + "' >/dev/null 2>&1";
    ASSERT_EQ(std::system(command.c_str()), 0);
    // libsndfile writes the samples to the file and the raw fork to ._<name>.
    ASSERT_TRUE(fs::exists(path("._out.sd2")));
    EXPECT_EQ(fs::file_size(path("out.sd2")), 441u * 4);

    const KROData sidecar = readFile(path("._out.sd2"));
    const KROData fork = KROResourceForkFinder::forkOfFile(path("out.sd2"));
    EXPECT_EQ(fork, sidecar);
    EXPECT_FALSE(KROResourceForkParser::isAppleDouble(fork));
    ASSERT_GE(fork.size(), 16u);
    const auto be32 = [&fork](std::size_t at) { return bigEndian32(fork, at); };
    EXPECT_EQ(be32(0) + be32(8), be32(4)) << "data offset + data length = map offset";
    EXPECT_EQ(be32(4) + be32(12), fork.size()) << "map offset + map length = fork length";

    auto reader = openReader(path("out.sd2"));
    ASSERT_TRUE(reader->resources());
    std::map<std::int64_t, std::string> strings;
    bool markers = false;
    for (const auto& resource : *reader->resources()) {
        if (resource->type() == fourCharCode("STR ")) {
            strings[resource->ID()] = pascalText(resource->data());
        }
        markers = markers || resource->type() == fourCharCode("sdML");
    }
    // Part 3.9's reading: 1000 bytes per sample, 1001 rate, 1002 channels.
    EXPECT_EQ(strings[1000], "2");
    EXPECT_EQ(std::stod(strings[1001]), 44100.0);
    EXPECT_EQ(strings[1002], "2");
    EXPECT_TRUE(markers);

    // The same fork wrapped as netatalk keeps it gives the same resources.
    fs::remove(path("._out.sd2"));
    fs::create_directory(path(".AppleDouble"));
    writeFile(path(".AppleDouble/out.sd2"), makeAppleDouble(sidecar));
    auto wrapped = openReader(path("out.sd2"));
    ASSERT_TRUE(wrapped->resources());
    ASSERT_EQ(wrapped->resources()->size(), reader->resources()->size());
    for (std::size_t index = 0; index < wrapped->resources()->size(); ++index) {
        EXPECT_EQ((*wrapped->resources())[index]->data(), (*reader->resources())[index]->data());
        EXPECT_EQ((*wrapped->resources())[index]->name(), (*reader->resources())[index]->name());
    }
}
