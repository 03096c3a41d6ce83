// The handler registry and read/write protocol, against libsndfile and sox.
#include <gtest/gtest.h>

#include <sys/wait.h>
#include <unistd.h>

#include <csignal>
#include <thread>

#include "KROAudioTestSupport.h"
#include "KROClassRegistry.h"
#include "KROTestCommand.h"
#include "KROTestWAVEContent.h"
#include "KROURLExtension.h"

namespace fs = std::filesystem;

namespace {

// Takes files that start with "KROT", under a row no build of the library fills.
class KROTestMagicContent : public KROAudioFileContent {
public:
    explicit KROTestMagicContent(std::string name) : name_(std::move(name)) {}
    std::string className() const override { return name_; }
    std::string format() const override { return "Test Format"; }
    bool supportsURL(const fs::path& url) const override {
        const KROData bytes = KROReadTestFile(url);
        return bytes.size() >= 4 && std::string(bytes.begin(), bytes.begin() + 4) == "KROT";
    }

private:
    std::string name_;
};

std::shared_ptr<KROTestWAVEContent> parsedFile(const fs::path& path) {
    auto content = std::make_shared<KROTestWAVEContent>();
    content->setURL(path);
    EXPECT_TRUE(content->parse());
    return content;
}

std::shared_ptr<KROTestWAVEContent> writerFor(const fs::path& directory, std::uint64_t channels,
                                              std::uint64_t bitDepth, bool isFloat = false) {
    auto content = std::make_shared<KROTestWAVEContent>();
    content->setWritingDirectory(directory);
    content->setSampleRate(44100);
    content->setNumberOfChannels(channels);
    content->setBitDepth(bitDepth);
    content->setIsFloatingPoint(isFloat);
    return content;
}

} // namespace

// Every handler that writes finds its own file again through the registry,
// also behind an ID3v2 tag (with a footer, ten bytes more) where its format
// allows one; its format name leads to it too. A disc image is a folder of
// files with a track list, found in its own tests.
TEST(KROAudioFileContent, TheRegistryFindsTheHandlerOfEveryFileWrittenHere) {
    KROTemporaryDirectory directory;
    const auto buffer = rampBuffer(1, 4410, 0.5f);
    std::vector<std::string> written;
    for (const auto& handler : KROAudioFileContent::fileContentClasses()) {
        SCOPED_TRACE(handler.name());
        EXPECT_EQ(KROAudioFileContent::fileContentClassForFormat(handler.format())->name(),
                  handler.name());
        const auto content = handler.makeContent();
        content->setWritingDirectory(directory.path());
        content->setSampleRate(44100);
        content->setNumberOfChannels(1);
        content->setBitDepth(16);
        if (handler.name() == "KROAudioFileDDPContent" || !content->beginWrite()) {
            continue;
        }
        ASSERT_TRUE(content->writeAudio(*buffer) && content->endWrite());
        written.push_back(handler.name());
        const fs::path path = directory / ("file." + handler.extension());
        fs::rename(content->URL(), path);
        EXPECT_EQ(KROAudioFileContent::fileContentClassAtURL(path)->name(), handler.name());
        if (handler.name() == "KROAudioFileFLACContent" ||
            handler.name() == "KROAudioFileMP3Content") {
            for (const std::uint8_t flags : {0x00, 0x10}) {
                const fs::path tagged = directory / ("tagged." + handler.extension());
                KROWriteTestFile(tagged, KROTestBytes()
                                             .text("ID3")
                                             .bytes({4, 0, flags, 0, 0, 1, 1})
                                             .fill(129 + (flags != 0 ? 10 : 0))
                                             .bytes(KROReadTestFile(path))
                                             .data());
                EXPECT_EQ(KROAudioFileContent::fileContentClassAtURL(tagged)->name(),
                          handler.name());
            }
        }
    }
    // Sound Designer and VOX files are only read.
    EXPECT_EQ(written,
              (std::vector<std::string>{"KROAudioFileAIFFContent", "KROAudioFileWAVEContent",
                                        "KROAudioFileCAFContent", "KROAudioFileAUContent",
                                        "KROAudioFileWAV64Content", "KROAudioFileMP3Content",
                                        "KROAudioFileM4AContent", "KROAudioFileVorbisContent",
                                        "KROAudioFileFLACContent"}));
    EXPECT_FALSE(KROAudioFileContent::fileContentClassForFormat(""));
}

// Of two handlers that take a file the earlier row gets it; none is reported with the path.
TEST(KROAudioFileContent, TheRegistryAsksItsRowsInOrder) {
    for (const char* name : {"KROAudioFileMusepackContent", "KROAudioFileMonkeysAudioContent"}) {
        KROClassRegistry::sharedRegistry().registerClass(name, "KROAudioFileContent", [name] {
            return std::make_shared<KROTestMagicContent>(name);
        });
    }
    KROTemporaryDirectory directory;
    KROWriteTestFile(directory / "file.test", KROTestBytes().text("KROT").data());
    EXPECT_EQ(KROAudioFileContent::fileContentClassAtURL(directory / "file.test")->name(),
              "KROAudioFileMonkeysAudioContent");
    EXPECT_EQ(
        KROAudioFileContent::fileContentClassForFormat("Test Format")->makeContent()->className(),
        "KROAudioFileMonkeysAudioContent");

    KROWriteTestFile(directory / "noise.xyz", KROTestBytes().text("NOIS").fill(40).data());
    KROErrorPtr error;
    EXPECT_FALSE(KROAudioFileContent::fileContentClassAtURL(directory / "noise.xyz", &error));
    ASSERT_TRUE(error);
    EXPECT_EQ(error->className(), "KROAudioFileContentError");
    EXPECT_EQ(error->code(), 3);
    EXPECT_NE(error->description().find("\u201c" + (directory / "noise.xyz").string() + "\u201d"),
              std::string::npos);
}

// Files that sox writes read as libsndfile reads them, sample for sample.
TEST(KROAudioFileContent, LinearReadingAgreesWithLibsndfile) {
    KROTemporaryDirectory directory;
    for (const char* encoding : {"-b 8", "-b 16", "-b 24", "-b 32", "-e floating-point -b 32"}) {
        SCOPED_TRACE(encoding);
        const fs::path path = directory / "sox.wav";
        ASSERT_EQ(KRORunCommand(std::string("sox -n -r 22050 -c 3 ") + encoding + " " +
                                path.string() + " synth 0.01 sine 300 sine 500 square 700 vol 0.9")
                      .status,
                  0);
        const auto content = parsedFile(path);
        const auto buffer = KROAudioBufferList::bufferListWithChannels(3, 256);
        ASSERT_TRUE(content->getAudio(*buffer, 0));
        const auto expected = libsndfileSamples(path);
        EXPECT_EQ(content->frames(), expected.size() / 3);
        EXPECT_EQ(samplesOf(*buffer), expected);
    }
}

TEST(KROAudioFileContent, GetAudioAtTheEdgesOfTheFile) {
    KROTemporaryDirectory directory;
    const fs::path path = directory / "edges.wav";
    ASSERT_EQ(KRORunCommand("sox -n -r 8000 -c 2 -b 16 " + path.string() + " synth 0.0125 sine 300")
                  .status,
              0);
    enum First { untouched, silent, audio };
    const struct {
        const char* what;
        std::uint32_t channels;
        std::uint64_t framesBefore, frame;
        bool succeeds;
        std::uint64_t framesAfter;
        First first;
    } cases[] = {
        {"the last frame gives one frame", 2, 64, 99, true, 1, audio},
        {"from the end: cleared, its count untouched", 2, 64, 100, true, 64, silent},
        {"a buffer of no frames is left alone", 2, 0, 0, true, 0, untouched},
        {"the wrong channel count fails before reading", 1, 64, 0, false, 64, untouched},
    };
    const auto content = parsedFile(path);
    for (const auto& c : cases) {
        SCOPED_TRACE(c.what);
        const auto buffer = KROAudioBufferList::bufferListWithChannels(c.channels, 64);
        buffer->setFrames(c.framesBefore);
        buffer->channel(0)[0] = 0.5f;
        KROErrorPtr error;
        EXPECT_EQ(content->getAudio(*buffer, c.frame, &error), c.succeeds);
        EXPECT_EQ(buffer->frames(), c.framesAfter);
        const float first = buffer->channel(0)[0];
        EXPECT_EQ(first == 0.5f ? untouched : first == 0.0f ? silent : audio, c.first);
        EXPECT_EQ(error ? error->code() : 0, c.succeeds ? 0 : 1);
    }
    const auto bytes = KROReadTestFile(path);
    KROWriteTestFile(path, KROData(bytes.begin(), bytes.end() - 4));
    const auto buffer = KROAudioBufferList::bufferListWithChannels(2, 4);
    ASSERT_TRUE(parsedFile(path)->getAudio(*buffer, 98));
    EXPECT_NE(buffer->channel(0)[0], 0.0f);
    EXPECT_EQ(buffer->channel(0)[1], 0.0f);
}

// Two threads read one file at once; the lock keeps each seek with its read.
TEST(KROAudioFileContent, TwoThreadsReadOneFileAtOnce) {
    KROTemporaryDirectory directory;
    const fs::path path = directory / "shared.wav";
    ASSERT_EQ(
        KRORunCommand("sox -n -r 8000 -c 2 -b 16 " + path.string() + " synth 1 sine 300 sine 310")
            .status,
        0);
    const auto expected = libsndfileSamples(path);
    const auto content = parsedFile(path);
    const auto reader = [&](std::uint64_t first, int* mismatches) {
        const auto buffer = KROAudioBufferList::bufferListWithChannels(2, 64);
        for (std::uint64_t step = 0; step < 4000; ++step) {
            const std::uint64_t frame = first + 128 * (step % 62);
            buffer->setFrames(64);
            content->getAudio(*buffer, frame);
            const auto read = samplesOf(*buffer);
            *mismatches += !std::equal(read.begin(), read.end(), expected.begin() + 2 * frame);
        }
    };
    int mismatches[2] = {};
    std::thread other(reader, 64, &mismatches[1]);
    reader(0, &mismatches[0]);
    other.join();
    EXPECT_EQ(mismatches[0] + mismatches[1], 0);
}

// libsndfile reads what is written, hidden beside the target or in the temporary directory.
TEST(KROAudioFileContent, LinearWritingMakesFilesLibsndfileReads) {
    KROTemporaryDirectory directory;
    for (const auto& [bitDepth, isFloat, step] : {std::tuple{8, false, 1.0f / 128},
                                                  {16, false, 1.0f / 32768},
                                                  {24, false, 1.0f / 8388608},
                                                  {32, true, 1.0f / 3}}) {
        SCOPED_TRACE(bitDepth);
        const auto content = writerFor(directory.path(), 3, bitDepth, isFloat);
        const auto block = rampBuffer(3, 333, step);
        ASSERT_TRUE(content->beginWrite() && content->writeAudio(*block) &&
                    content->writeAudio(*block));
        ASSERT_TRUE(content->endWrite());
        EXPECT_EQ(content->URL().parent_path(), directory.path());
        EXPECT_EQ(content->URL().filename().string()[0], '.');
        auto expected = samplesOf(*block);
        expected.insert(expected.end(), expected.begin(), expected.end());
        EXPECT_EQ(libsndfileSamples(content->URL()), expected);
    }
    const auto elsewhere = writerFor("/nonexistent/krocore", 1, 16);
    ASSERT_TRUE(elsewhere->beginWrite() && elsewhere->endWrite());
    EXPECT_EQ(elsewhere->URL().parent_path(), kro::temporaryDirectory());
    fs::remove(elsewhere->URL());
}

// Past the size limit the write fails with code 4 and the target stays as it was.
TEST(KROAudioFileContent, WritingPastTheSizeLimitFailsAndLeavesTheTarget) {
    KROTemporaryDirectory directory;
    const KROData original = KROTestBytes().text("the take as it was").data();
    KROWriteTestFile(directory / "take.wav", original);
    const auto content = writerFor(directory.path(), 2, 16);
    content->sizeLimit = 4000;
    const auto block = rampBuffer(2, 600, 1.0f / 32768);
    KROErrorPtr error;
    ASSERT_TRUE(content->beginWrite(&error) && content->writeAudio(*block, &error));
    EXPECT_FALSE(content->writeAudio(*block, &error));
    ASSERT_TRUE(error);
    EXPECT_EQ(error->className(), "KROAudioFileWAVEContentError");
    EXPECT_EQ(error->code(), 4);
    EXPECT_NE(
        error->description().find(std::string(1, '\'').append(kro::filename(content->URL())) + "'"),
        std::string::npos);
    EXPECT_EQ(content->frames(), 1200u);
    content->endWrite();
    EXPECT_EQ(fs::file_size(content->URL()), 44u + 2400u);
    EXPECT_EQ(KROReadTestFile(directory / "take.wav"), original);
}

// A writer killed mid-file leaves the target byte for byte, and its hidden file.
TEST(KROAudioFileContent, AKilledWriterLeavesTheTargetAsItWas) {
    KROTemporaryDirectory directory;
    const fs::path target = directory / "take.wav";
    ASSERT_EQ(
        KRORunCommand("sox -n -r 44100 -c 2 -b 16 " + target.string() + " synth 1 sine 440").status,
        0);
    const KROData original = KROReadTestFile(target);
    const pid_t writer = ::fork();
    if (writer == 0) {
        const auto content = writerFor(directory.path(), 2, 16);
        const auto block = rampBuffer(2, 44100, 1.0f / 32768);
        for (bool writing = content->beginWrite(); writing; writing = content->writeAudio(*block)) {
        }
        ::_exit(1);
    }
    const auto hiddenFileSize = [&] {
        std::uintmax_t size = 0;
        for (const auto& entry : fs::directory_iterator(directory.path())) {
            size += entry.path().filename().string()[0] == '.' ? entry.file_size() : 0;
        }
        return size;
    };
    for (int wait = 0; wait < 6000 && hiddenFileSize() < (8u << 20); ++wait) {
        std::this_thread::sleep_for(std::chrono::milliseconds(5));
    }
    ::kill(writer, SIGKILL);
    int status = 0;
    ::waitpid(writer, &status, 0);
    ASSERT_TRUE(WIFSIGNALED(status));
    EXPECT_GE(hiddenFileSize(), 8u << 20);
    EXPECT_EQ(KROReadTestFile(target), original);
    EXPECT_EQ(std::distance(fs::directory_iterator(directory.path()), fs::directory_iterator()), 2);
}

TEST(KROAudioFileContent, SettingsByKeyReachTheirFields) {
    KROTestWAVEContent content;
    EXPECT_TRUE(content.setValue(KROPropertyList(48000.0), "sampleRate") &&
                content.setValue(KROPropertyList(6), "numberOfChannels"));
    EXPECT_FALSE(content.setValue(KROPropertyList("fast"), "bitDepth") ||
                 content.setValue(KROPropertyList(1), "noSuchKey"));
    EXPECT_EQ(std::pair(content.sampleRate(), content.numberOfChannels()), std::pair(48000.0, 6ul));
}
