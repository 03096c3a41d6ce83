// Overview tables: stored bytes, bounded access, numpy's reduction, legacy tables.
#include <gtest/gtest.h>

#include <cmath>
#include <cstring>
#include <fstream>
#include <sstream>

#include "../util/KROScratchDirectory.h"
#include "KROTestCommand.h"
#include "KROWaveform.h"
#include "KROWaveformBuffer.h"

namespace {

std::shared_ptr<KROWaveform> waveform(const std::string& name, std::uint64_t entries) {
    auto made = KROWaveform::waveformWithClassName(name);
    EXPECT_TRUE(made) << name;
    if (made) {
        made->setNumberOfEntries(entries);
    }
    return made;
}

} // namespace

// Three entries written with 1.0, -1.0 and 1.5 on the positive curve and
// -0.5 on the negative one: the bytes on disk per class, and what the writer
// left in the caller's array, which it scales in place. Min-max and 8-bit
// tables clip; the 16-bit rectified table does not (1.5 saturates), and
// ignores the negative curve; a legacy table takes no generic write.
TEST(KROWaveform, EachClassStoresItsOwnBytes) {
    struct Case {
        const char* name;
        std::size_t entrySize;
        KROData bytes;
        float scaledLast;
    };
    const Case cases[] = {
        {"KROMinMaxWaveform",
         4,
         {0xFF, 0x7F, 0x00, 0xC0, 0x01, 0x80, 0x00, 0xC0, 0xFF, 0x7F, 0x00, 0xC0},
         32767.0f},
        {"KROSmallMinMaxWaveform", 2, {0x7F, 0xC0, 0x81, 0xC0, 0x7F, 0xC0}, 127.0f},
        {"KRORMSWaveform", 2, {0xFF, 0x7F, 0x01, 0x80, 0xFF, 0x7F}, 49150.5f},
        {"KROSmallMeanWaveform", 1, {0x7F, 0x81, 0x7F}, 127.0f},
        {"KRMaxWaveform", 4, KROData(12, 0), 1.5f},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.name);
        const auto table = waveform(c.name, 3);
        EXPECT_EQ(table->entrySize(), c.entrySize);
        float positive[] = {1.0f, -1.0f, 1.5f};
        float negative[] = {-0.5f, -0.5f, -0.5f};
        table->setPositiveValues(positive, 0, 3);
        table->setNegativeValues(negative, 0, 3);
        EXPECT_EQ(table->table(), c.bytes);
        EXPECT_EQ(positive[2], c.scaledLast);
    }
    EXPECT_EQ(KROWaveform::waveformWithClassName("KROWaveformBuffer"), nullptr);
    EXPECT_EQ(waveform("KROMinMaxWaveform", 10)->description(), "KROMinMaxWaveform (length = 40)");
}

// What lies outside the table reads as zero on either side; a read of no
// entries touches nothing; the negative curve of a rectified table mirrors
// its positive one.
TEST(KROWaveform, ReadsOutsideTheTableAreSilent) {
    const auto table = waveform("KROMagnitudeWaveform", 4);
    float values[] = {0.25f, 0.5f, 0.75f, 1.0f};
    table->setPositiveValues(values, 0, 4);
    struct Case {
        std::int64_t index;
        std::uint64_t length;
        std::vector<float> expected;
    };
    const float q = 8192.0f / 32767.0f;
    const Case cases[] = {
        {-2, 4, {0, 0, q, 2 * q}}, {3, 3, {1.0f, 0, 0}}, {4, 2, {0, 0}},
        {-5, 3, {0, 0, 0}},        {0, 0, {9.0f}},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.index);
        std::vector<float> read(std::max<std::size_t>(c.length, 1), 9.0f);
        table->getPositiveValues(read.data(), c.index, c.length);
        for (std::size_t i = 0; i < c.expected.size(); ++i) {
            EXPECT_NEAR(read[i], c.expected[i], 1e-4f) << i;
        }
    }
    float negative[2];
    table->getNegativeValues(negative, 2, 2);
    EXPECT_NEAR(negative[1], -1.0f, 1e-6f);
}

// A table built from samples has one entry per 256 frames (257 frames give
// two, the second over one sample), and equals numpy's max and min of each
// block, scaled and rounded.
TEST(KROWaveform, ATableBuiltFromSamplesMatchesNumpy) {
    KROScratchDirectory directory;
    std::vector<float> samples(256 * 40 + 1);
    for (std::size_t i = 0; i < samples.size(); ++i) {
        samples[i] = float(std::sin(double(i) * 0.0123) * std::cos(double(i) * 0.000731) * 0.9);
    }
    std::ofstream(directory / "samples.f32", std::ios::binary)
        .write(reinterpret_cast<const char*>(samples.data()), std::streamsize(samples.size() * 4));
    const auto numpy = KRORunCommand(
        "/usr/bin/python3 -c \"import numpy as n; s = n.fromfile('" +
        (directory / "samples.f32").string() +
        "', dtype=n.float32); b = [s[i:i + 256] for i in range(0, len(s), 256)]; "
        "print(' '.join('%d %d' % (round(x.max() * 32767), round(x.min() * 32767)) for x in b))\"");
    ASSERT_EQ(numpy.status, 0);
    KROMinMaxWaveform table;
    table.buildFromSamples(samples.data(), samples.size());
    ASSERT_EQ(table.numberOfEntries(), 41u);
    std::istringstream expected(numpy.output);
    for (std::uint64_t entry = 0; entry < 41; ++entry) {
        int maximum = 0, minimum = 0;
        expected >> maximum >> minimum;
        std::int16_t stored[2];
        std::memcpy(stored, table.table().data() + 4 * entry, 4);
        EXPECT_NEAR(stored[0], maximum, 1) << entry;
        EXPECT_NEAR(stored[1], minimum, 1) << entry;
    }
    KROMinMaxWaveform last;
    last.buildFromSamples(samples.data() + 256 * 40, 1);
    float positive = 0.0f, negative = 0.0f;
    last.getPositiveValues(&positive, 0, 1);
    last.getNegativeValues(&negative, 0, 1);
    EXPECT_EQ(positive, negative);
}

// Legacy tables grow only by analysis, one float per block; a generic writer
// leaves them alone, and swap turns every entry's bytes.
TEST(KROWaveform, LegacyTablesGrowByAnalysisAndSwap) {
    KRRMSWaveform table;
    const std::vector<float> samples(300, -0.5f);
    table.appendAnalysisOfBuffer(samples.data(), samples.size());
    ASSERT_EQ(table.numberOfEntries(), 2u);
    float values[2];
    table.getNegativeValues(values, 0, 2);
    EXPECT_EQ(values[0], -0.5f);
    EXPECT_EQ(values[1], -0.5f);
    float written = 0.25f;
    table.setPositiveValues(&written, 0, 1);
    table.getPositiveValues(values, 0, 1);
    EXPECT_EQ(values[0], 0.5f);
    const KROData before = table.table();
    table.swap();
    EXPECT_EQ(table.table()[0], before[3]);
    EXPECT_EQ(table.table()[7], before[4]);
}

// A display's buffer: curve 2c and 2c + 1 of channel c, scaled column by column.
TEST(KROWaveformBuffer, ChannelsOwnTwoCurvesEach) {
    KROWaveformBuffer buffer;
    ASSERT_TRUE(buffer.initWithChannels(2, 4));
    EXPECT_EQ(buffer.numberOfChannels(), 2u);
    buffer.setPositiveValue(0.5f, 3, 1);
    buffer.setNegativeValue(-0.5f, 3, 1);
    EXPECT_EQ(buffer.buffer().valueAtFrame(3, 2), 0.5f);
    EXPECT_EQ(buffer.buffer().valueAtFrame(3, 3), -0.5f);
    const float scalars[] = {1, 1, 1, 4};
    buffer.scaleWithScalars(scalars);
    EXPECT_EQ(buffer.negativeValueAtFrame(3, 1), -2.0f);
}
