// The handler registry, and the read and write protocol driven through a
// small WAVE handler built on the frame, against libsndfile and sox.
#include <gtest/gtest.h>

#include <sndfile.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <csignal>
#include <functional>
#include <thread>

#include "KROAudioFileContentStandIn.h"
#include "KROClassRegistry.h"
#include "KROFileTestSupport.h"
#include "KROTestCommand.h"
#include "KROTestWAVEContent.h"
#include "KROURLExtension.h"

namespace fs = std::filesystem;

namespace {

// A handler of test files, which start with "KROT"; registered under the
// names of registry rows that no build of the library fills.
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

void registerMagicHandler(const std::string& name) {
    KROClassRegistry::sharedRegistry().registerClass(name, "KROAudioFileContent", [name] {
        return std::make_shared<KROTestMagicContent>(name);
    });
}

std::shared_ptr<KROTestWAVEContent> parsedFile(const fs::path& path) {
    auto content = std::make_shared<KROTestWAVEContent>();
    content->setURL(path);
    KROErrorPtr error;
    EXPECT_TRUE(content->parse(&error)) << (error ? error->description() : "");
    return content;
}

std::vector<float> samplesOf(const KROAudioBufferList& buffer) {
    std::vector<float> samples;
    for (std::uint64_t frame = 0; frame < buffer.frames(); ++frame) {
        for (std::uint32_t channel = 0; channel < buffer.numberOfChannels(); ++channel) {
            samples.push_back(buffer.channel(channel)[frame]);
        }
    }
    return samples;
}

// Interleaved samples as libsndfile reads them, normalised to +-1.
std::vector<float> libsndfileSamples(const fs::path& path) {
    SF_INFO info{};
    SNDFILE* file = sf_open(path.c_str(), SFM_READ, &info);
    if (file == nullptr) {
        ADD_FAILURE() << "libsndfile cannot read " << path << ": " << sf_strerror(nullptr);
        return {};
    }
    std::vector<float> samples(static_cast<std::size_t>(info.frames * info.channels));
    sf_readf_float(file, samples.data(), info.frames);
    sf_close(file);
    return samples;
}

// The hidden files a writer left in a directory.
std::vector<fs::path> hiddenFilesIn(const fs::path& directory) {
    std::vector<fs::path> found;
    for (const auto& entry : fs::directory_iterator(directory)) {
        if (entry.path().filename().string().front() == '.') {
            found.push_back(entry.path());
        }
    }
    return found;
}

std::shared_ptr<KROAudioBufferList> rampBuffer(std::uint32_t channels, std::uint64_t frames,
                                               float step) {
    auto buffer = KROAudioBufferList::bufferListWithChannels(channels, frames);
    for (std::uint32_t channel = 0; channel < channels; ++channel) {
        for (std::uint64_t frame = 0; frame < frames; ++frame) {
            const auto value = static_cast<float>((frame * channels + channel) % 200) - 100.0f;
            buffer->channel(channel)[frame] = value * step;
        }
    }
    return buffer;
}

std::shared_ptr<KROTestWAVEContent> writerFor(const fs::path& directory, std::uint64_t channels,
                                              std::uint64_t bitDepth, bool isFloat) {
    auto content = std::make_shared<KROTestWAVEContent>();
    content->setWritingDirectory(directory);
    content->setSampleRate(44100);
    content->setNumberOfChannels(channels);
    content->setBitDepth(bitDepth);
    content->setIsFloatingPoint(isFloat);
    return content;
}

} // namespace

// Handlers that arrive in later builds are held by stand-ins that take no
// file and no format. When a real handler replaces one, this list and the
// stand-ins' list lose its name.
TEST(KROAudioFileContent, HandlersStillToComeAreHeldByStandIns) {
    const std::vector<std::string> stillToCome = {
        "KROAudioFileAIFFContent", "KROAudioFileWAVEContent", "KROAudioFileCAFContent",
        "KROAudioFileSFILContent", "KROAudioFileAUContent",   "KROAudioFileWAV64Content",
        "KROAudioFileMP3Content",  "KROAudioFileM4AContent",  "KROAudioFileVorbisContent",
        "KROAudioFileFLACContent", "KROAudioFileVOXContent",  "KROAudioFileDDPContent",
        "KROAudioFileSDIIContent",
    };
    std::vector<std::string> standIns;
    for (const auto& handler : KROAudioFileContent::fileContentClasses()) {
        if (std::dynamic_pointer_cast<KROAudioFileContentStandIn>(handler.makeContent())) {
            standIns.push_back(handler.name());
            EXPECT_EQ(handler.format(), "") << handler.name();
        }
    }
    EXPECT_EQ(standIns, stillToCome);
    for (const char* format : {"WAVE File", "AIFF File", "DDP", ""}) {
        EXPECT_FALSE(KROAudioFileContent::fileContentClassForFormat(format)) << format;
    }
}

TEST(KROAudioFileContent, AFileWithNoTakerReportsItsFullPath) {
    KROTemporaryDirectory directory;
    const fs::path path = directory / "noise.xyz";
    KROWriteTestFile(path, KROTestBytes().text("RIFF").fill(40).data());
    KROErrorPtr error;
    EXPECT_FALSE(KROAudioFileContent::fileContentClassAtURL(path, &error));
    ASSERT_TRUE(error);
    EXPECT_EQ(error->className(), "KROAudioFileContentError");
    EXPECT_EQ(error->code(), 3);
    EXPECT_NE(error->description().find("\u201c" + path.string() + "\u201d"), std::string::npos)
        << error->description();
}

// A later build adds a handler by registering its name; of two handlers that
// take the same file, the earlier row gets it, by file and by format name.
TEST(KROAudioFileContent, ARegisteredNameJoinsTheRegistryInItsRow) {
    registerMagicHandler("KROAudioFileMusepackContent");
    registerMagicHandler("KROAudioFileMonkeysAudioContent");
    KROTemporaryDirectory directory;
    const fs::path path = directory / "file.test";
    KROWriteTestFile(path, KROTestBytes().text("KROT").fill(8).data());
    const auto atURL = KROAudioFileContent::fileContentClassAtURL(path);
    ASSERT_TRUE(atURL);
    EXPECT_EQ(atURL->name(), "KROAudioFileMonkeysAudioContent");
    const auto forFormat = KROAudioFileContent::fileContentClassForFormat("Test Format");
    ASSERT_TRUE(forFormat);
    EXPECT_EQ(forFormat->name(), "KROAudioFileMonkeysAudioContent");
    EXPECT_EQ(forFormat->makeContent()->className(), "KROAudioFileMonkeysAudioContent");
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
    enum class First { untouched, silent, audio };
    struct Case {
        const char* what;
        std::uint32_t channels;
        std::uint64_t startFrames;
        std::uint64_t frame;
        bool succeeds;
        std::uint64_t endFrames;
        First first;
    };
    const Case cases[] = {
        {"the last frame gives one frame", 2, 64, 99, true, 1, First::audio},
        {"from the end: cleared, its count untouched", 2, 64, 100, true, 64, First::silent},
        {"a buffer of no frames is left alone", 2, 0, 0, true, 0, First::untouched},
        {"the wrong channel count fails before reading", 1, 64, 0, false, 64, First::untouched},
    };
    const auto content = parsedFile(path);
    ASSERT_EQ(content->frames(), 100u);
    for (const Case& c : cases) {
        SCOPED_TRACE(c.what);
        const auto buffer = KROAudioBufferList::bufferListWithChannels(c.channels, 64);
        buffer->setFrames(c.startFrames);
        buffer->channel(0)[0] = 0.5f;
        KROErrorPtr error;
        EXPECT_EQ(content->getAudio(*buffer, c.frame, &error), c.succeeds);
        EXPECT_EQ(buffer->frames(), c.endFrames);
        const float first = buffer->channel(0)[0];
        EXPECT_EQ(first == 0.5f   ? First::untouched
                  : first == 0.0f ? First::silent
                                  : First::audio,
                  c.first);
        if (!c.succeeds) {
            ASSERT_TRUE(error);
            EXPECT_EQ(error->className(), "KROAudioFileContentError");
            EXPECT_EQ(error->code(), 1);
        }
    }
    // Cut inside its audio, the file reads as silence where it has no bytes.
    const auto bytes = KROReadTestFile(path);
    KROWriteTestFile(path, KROData(bytes.begin(), bytes.end() - 4));
    const auto cut = parsedFile(path);
    const auto buffer = KROAudioBufferList::bufferListWithChannels(2, 4);
    ASSERT_TRUE(cut->getAudio(*buffer, 98));
    EXPECT_NE(buffer->channel(0)[0], 0.0f);
    EXPECT_EQ(buffer->channel(0)[1], 0.0f);
}

// Two disk threads read one file at once, each from its own places; the
// read lock keeps each seek with its read.
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

// What the handler writes, libsndfile reads back, in every sample format.
TEST(KROAudioFileContent, LinearWritingMakesFilesLibsndfileReads) {
    struct Case {
        std::uint64_t bitDepth;
        bool isFloat;
        float step;
    };
    KROTemporaryDirectory directory;
    for (const Case& c : {Case{8, false, 1.0f / 128}, Case{16, false, 1.0f / 32768},
                          Case{24, false, 1.0f / 8388608}, Case{32, true, 1.0f / 3}}) {
        SCOPED_TRACE(c.bitDepth);
        const auto content = writerFor(directory.path(), 3, c.bitDepth, c.isFloat);
        const auto block = rampBuffer(3, 333, c.step);
        KROErrorPtr error;
        ASSERT_TRUE(content->beginWrite(&error)) << error->description();
        ASSERT_TRUE(content->writeAudio(*block, &error));
        ASSERT_TRUE(content->writeAudio(*block, &error));
        ASSERT_TRUE(content->endWrite(&error));
        EXPECT_EQ(content->URL().parent_path(), directory.path());
        EXPECT_EQ(content->URL().filename().string().substr(0, 1), ".");
        EXPECT_EQ(content->frames(), 666u);
        auto expected = samplesOf(*block);
        expected.insert(expected.end(), expected.begin(), expected.end());
        EXPECT_EQ(libsndfileSamples(content->URL()), expected);
        fs::remove(content->URL());
    }
}

TEST(KROAudioFileContent, AnUnwritableDirectoryWritesToTheTemporaryDirectory) {
    const auto content = writerFor("/nonexistent/krocore", 1, 16, false);
    KROErrorPtr error;
    ASSERT_TRUE(content->beginWrite(&error));
    EXPECT_EQ(content->URL().parent_path(), kro::temporaryDirectory());
    EXPECT_TRUE(content->endWrite(&error));
    fs::remove(content->URL());
}

// Past the format's size limit the write fails with the handler's code 4,
// frames already counted; the file it was to replace never changed.
TEST(KROAudioFileContent, WritingPastTheSizeLimitFailsAndLeavesTheTarget) {
    KROTemporaryDirectory directory;
    const fs::path target = directory / "take.wav";
    const KROData original = KROTestBytes().text("the take as it was").data();
    KROWriteTestFile(target, original);
    const auto content = writerFor(directory.path(), 2, 16, false);
    content->sizeLimit = 4000;
    const auto block = rampBuffer(2, 600, 1.0f / 32768);
    KROErrorPtr error;
    ASSERT_TRUE(content->beginWrite(&error));
    ASSERT_TRUE(content->writeAudio(*block, &error));
    EXPECT_FALSE(content->writeAudio(*block, &error));
    ASSERT_TRUE(error);
    EXPECT_EQ(error->className(), "KROAudioFileWAVEContentError");
    EXPECT_EQ(error->code(), 4);
    EXPECT_NE(error->description().find("'" + kro::filename(content->URL()) + "'"),
              std::string::npos);
    EXPECT_EQ(content->frames(), 1200u);
    content->endWrite(nullptr);
    EXPECT_EQ(fs::file_size(content->URL()), 44u + 2400u);
    EXPECT_EQ(KROReadTestFile(target), original);
}

// A writer killed mid-file leaves the file it was to replace byte for byte;
// what remains of its work is the hidden file beside it.
TEST(KROAudioFileContent, AKilledWriterLeavesTheTargetAsItWas) {
    KROTemporaryDirectory directory;
    const fs::path target = directory / "take.wav";
    ASSERT_EQ(
        KRORunCommand("sox -n -r 44100 -c 2 -b 16 " + target.string() + " synth 1 sine 440").status,
        0);
    const KROData original = KROReadTestFile(target);
    const pid_t writer = ::fork();
    if (writer == 0) {
        const auto content = writerFor(directory.path(), 2, 16, false);
        const auto block = rampBuffer(2, 44100, 1.0f / 32768);
        if (content->beginWrite()) {
            while (content->writeAudio(*block)) {
            }
        }
        ::_exit(1);
    }
    const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(30);
    std::uintmax_t written = 0;
    while (written < (std::uintmax_t{8} << 20) && std::chrono::steady_clock::now() < deadline) {
        std::this_thread::sleep_for(std::chrono::milliseconds(5));
        for (const fs::path& hidden : hiddenFilesIn(directory.path())) {
            std::error_code ignored;
            written = fs::file_size(hidden, ignored);
        }
    }
    ::kill(writer, SIGKILL);
    int status = 0;
    ::waitpid(writer, &status, 0);
    ASSERT_TRUE(WIFSIGNALED(status));
    EXPECT_GE(written, std::uintmax_t{8} << 20);
    EXPECT_EQ(KROReadTestFile(target), original);
    EXPECT_EQ(hiddenFilesIn(directory.path()).size(), 1u);
    EXPECT_EQ(std::distance(fs::directory_iterator(directory.path()), fs::directory_iterator()), 2);
}

TEST(KROAudioFileContent, SettingsByKeyReachTheirFields) {
    KROTestWAVEContent content;
    EXPECT_TRUE(content.setValue(KROPropertyList(48000.0), "sampleRate"));
    EXPECT_TRUE(content.setValue(KROPropertyList(24), "bitDepth"));
    EXPECT_TRUE(content.setValue(KROPropertyList(6), "numberOfChannels"));
    EXPECT_TRUE(content.setValue(KROPropertyList(true), "isFloatingPoint"));
    EXPECT_TRUE(content.setValue(KROPropertyList(2), "audioDataByteOrder"));
    EXPECT_TRUE(content.setValue(KROPropertyList("/tmp"), "writingDirectory"));
    EXPECT_FALSE(content.setValue(KROPropertyList("fast"), "sampleRate"));
    EXPECT_FALSE(content.setValue(KROPropertyList(1), "noSuchKey"));
    EXPECT_EQ(content.sampleRate(), 48000.0);
    EXPECT_EQ(content.bitDepth(), 24u);
    EXPECT_EQ(content.numberOfChannels(), 6u);
    EXPECT_TRUE(content.isFloatingPoint());
    EXPECT_EQ(content.audioDataByteOrder(), 2);
    EXPECT_EQ(content.writingDirectory(), "/tmp");
}
