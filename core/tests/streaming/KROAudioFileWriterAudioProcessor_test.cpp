// The offline heads that store a graph: file, name, tail, cancels, failures, raw render.
#include <gtest/gtest.h>

#include <cstring>
#include <fstream>
#include <sys/stat.h>

#include "KROAudioFileAudioGenerator.h"
#include "KROAudioFileWriterAudioProcessor.h"
#include "KROAudioStreamBasicDescription.h"
#include "KROAudioWriterAudioProcessor.h"
#include "KROErrorFamilies.h"
#include "KROFaderAudioProcessor.h"
#include "KROStreamingTestSupport.h"
#include "KROWaveform.h"

namespace {

// Frame counts of the pulls that pass a bus.
class PullCounter : public KROAudioBusObserver {
public:
    void willRender(KROAudioBufferList&, KROAudioBus&, KROAudioStreamRenderInfo&) override {}
    void didRender(KROAudioBufferList& buffer, KROAudioBus&, KROAudioStreamRenderInfo&) override {
        pulls.push_back(buffer.frames());
    }
    std::vector<std::uint64_t> pulls;
};

// Cancels its operation after a number of pulls.
class Canceller : public PullCounter {
public:
    void didRender(KROAudioBufferList& buffer, KROAudioBus& bus,
                   KROAudioStreamRenderInfo& info) override {
        PullCounter::didRender(buffer, bus, info);
        if (pulls.size() == after) {
            operation->cancel();
        }
    }
    std::shared_ptr<KROOperation> operation = std::make_shared<KROOperation>();
    std::size_t after = 1;
};

class KROWriterTest : public ::testing::Test {
protected:
    void SetUp() override { writeSignatureFile(directory_ / "source.wav", 2, 3 * 48000); }

    // source -> fader at 0.5 -> the writer.
    template <typename Writer> std::shared_ptr<Writer> chainTo(double start, double length) {
        stream_ = std::make_unique<KROAudioStream>();
        auto file = made<KROAudioFileAudioGenerator>();
        file->setAudioFile(KROAudioFileReader::readerWithURL(directory_ / "source.wav"));
        auto fader = made<KROFaderAudioProcessor>();
        fader->setScalar(0.5f);
        auto writer = made<Writer>();
        writer->setBaseDirectory(directory_.path());
        writer->setBaseFilename("mix");
        writer->setSampleRate(48000);
        writer->setNumberOfChannels(2);
        writer->setRange(NSMakeDoubleRange(start, length));
        buildChain(*stream_, {file, fader, writer});
        writer->inputBus()->addPostRenderTarget(&pulls_);
        return writer;
    }

    static void configure(KROAudioFileWriterAudioProcessor& writer) {
        writer.setFormat("WAVE File");
        writer.setEncoding(kAudioFormatLinearPCM);
        writer.setBitDepth(32);
        writer.setFloatingPoint(true);
        writer.setAudioDataByteOrder(1);
    }

    std::vector<std::string> filesInDirectory() const {
        std::vector<std::string> names;
        for (const auto& entry : std::filesystem::directory_iterator(directory_.path())) {
            names.push_back(entry.path().filename().string());
        }
        std::sort(names.begin(), names.end());
        return names;
    }

    KROScratchDirectory directory_;
    std::unique_ptr<KROAudioStream> stream_;
    PullCounter pulls_;
};

} // namespace

// 2.5 s in pulls of a second: the file holds the graph's output frame for
// frame, under a free name, and the working file is gone.
TEST_F(KROWriterTest, TheFileWriterStoresTheRangeUnderAFreeName) {
    std::ofstream(directory_ / "mix.wav") << "taken";
    auto writer = chainTo<KROAudioFileWriterAudioProcessor>(0.5, 2.5);
    configure(*writer);
    KROErrorPtr error;
    ASSERT_TRUE(stream_->initialize(&error)) << (error ? error->description() : "");
    ASSERT_TRUE(writer->start(&error)) << (error ? error->description() : "");
    EXPECT_EQ(pulls_.pulls, (std::vector<std::uint64_t>{48000, 48000, 24000}));
    EXPECT_FLOAT_EQ(writer->progress(), 1.0f);
    EXPECT_EQ(writer->resultURL(), directory_ / "mix-1.wav");
    EXPECT_EQ(filesInDirectory(), (std::vector<std::string>{"mix-1.wav", "mix.wav", "source.wav"}));
    const auto written = libsndfileSamples(directory_ / "mix-1.wav");
    ASSERT_EQ(written.size(), 2u * 120000);
    for (std::size_t i = 0; i < written.size(); i += 7) {
        ASSERT_EQ(written[i], 0.5f * signatureSample(24000 + std::int64_t(i / 2), i % 2)) << i;
    }
}

// With a tail, the render goes on past the range while sound lasts. The
// source ends exactly at the range's end: the quiet pull that starts there is
// still stored, the next one ends the tail unstored, and the range's length
// becomes the absolute end.
TEST_F(KROWriterTest, ATailEndsAtTheFirstQuietPullAfterTheEnd) {
    auto writer = chainTo<KROAudioFileWriterAudioProcessor>(2.0, 1.0);
    configure(*writer);
    writer->setRenderFrames(12000);
    writer->setRetainTail(true);
    writer->setMaximumTailLength(2.0);
    ASSERT_TRUE(stream_->initialize());
    ASSERT_TRUE(writer->start());
    EXPECT_EQ(pulls_.pulls.size(), 6u);
    EXPECT_DOUBLE_EQ(writer->range().length, 3.25);
    EXPECT_EQ(libsndfileSamples(writer->resultURL()).size(), 2u * 60000);
}

// Refusals and failures: each gives its code and leaves no file behind.
TEST_F(KROWriterTest, RefusalsAndCancelsLeaveNoFile) {
    struct Case {
        const char* what;
        std::function<void(KROAudioFileWriterAudioProcessor&)> change;
        const char* family;
        std::int64_t code;
        bool cancels;
    };
    const Case cases[] = {
        {"an empty range", [](auto& w) { w.setRange(NSMakeDoubleRange(1, 0)); },
         "KROAudioFileWriterAudioProcessorError", 2, false},
        {"an unknown format", [](auto& w) { w.setFormat("Tape"); },
         "KROAudioFileWriterAudioProcessorError", 1, false},
        {"a folder that is not there", [](auto& w) { w.setBaseDirectory("/nonexistent/folder"); },
         "KROFileError", 0, false},
        {"a cancel after the first pull", [](auto&) {}, "KROCocoaError", 3072, true},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.what);
        auto writer = chainTo<KROAudioFileWriterAudioProcessor>(0.0, 2.0);
        configure(*writer);
        Canceller canceller;
        if (c.cancels) {
            writer->setOperation(canceller.operation);
            writer->inputBus()->addPostRenderTarget(&canceller);
        }
        c.change(*writer);
        KROErrorPtr error;
        const bool ran = stream_->initialize(&error) && writer->start(&error);
        EXPECT_FALSE(ran);
        ASSERT_TRUE(error);
        EXPECT_EQ(error->className(), c.family);
        if (c.code != 0) {
            EXPECT_EQ(error->code(), c.code);
        }
        EXPECT_EQ(filesInDirectory(), std::vector<std::string>{"source.wav"});
        writer->inputBus()->removePostRenderTarget(&canceller);
    }
}

// The raw render: native floats per channel, and overview tables per channel
// that equal a table built from the whole channel, since every pull is whole
// entries. A cancel deletes every file, with no error object.
TEST_F(KROWriterTest, TheRenderWriterWritesChannelsAndOverviews) {
    auto writer = chainTo<KROAudioWriterAudioProcessor>(0.0, 2.0);
    writer->setWaveformClasses({"KROMinMaxWaveform"});
    ASSERT_TRUE(stream_->initialize());
    ASSERT_TRUE(writer->start());
    EXPECT_EQ(pulls_.pulls.front(), 48128u);
    EXPECT_EQ(filesInDirectory(),
              (std::vector<std::string>{"mix.00", "mix.00.KROMinMaxWaveform", "mix.01",
                                        "mix.01.KROMinMaxWaveform", "source.wav"}));
    for (std::uint32_t channel = 0; channel < 2; ++channel) {
        SCOPED_TRACE(channel);
        const KROData raw = KROReadTestFile(directory_ / ("mix.0" + std::to_string(channel)));
        std::vector<float> samples(raw.size() / 4);
        std::memcpy(samples.data(), raw.data(), raw.size());
        ASSERT_EQ(samples.size(), 96000u);
        for (std::size_t i = 0; i < samples.size(); i += 11) {
            ASSERT_EQ(samples[i], 0.5f * signatureSample(std::int64_t(i), channel));
        }
        KROMinMaxWaveform whole;
        whole.buildFromSamples(samples.data(), samples.size());
        EXPECT_EQ(KROReadTestFile(directory_ /
                                  ("mix.0" + std::to_string(channel) + ".KROMinMaxWaveform")),
                  whole.table());
    }

    stream_->uninitialize();
    std::filesystem::remove_all(directory_ / "mix.00");
    for (const char* name : {"mix.00.KROMinMaxWaveform", "mix.01", "mix.01.KROMinMaxWaveform"}) {
        std::filesystem::remove(directory_ / name);
    }
    Canceller canceller;
    writer->setOperation(canceller.operation);
    writer->inputBus()->addPostRenderTarget(&canceller);
    KROErrorPtr error;
    ASSERT_TRUE(stream_->initialize());
    EXPECT_FALSE(writer->start(&error));
    EXPECT_FALSE(error);
    EXPECT_EQ(filesInDirectory(), std::vector<std::string>{"source.wav"});
}
