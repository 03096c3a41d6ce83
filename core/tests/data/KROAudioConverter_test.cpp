// The sample format converter, its linear PCM path checked against sox and
// libsndfile, which nobody here wrote.
#include <gtest/gtest.h>
#include <sndfile.h>

#include <array>
#include <bit>
#include <cmath>
#include <cstring>
#include <fstream>
#include <functional>
#include <limits>
#include <numeric>

#include "../util/KROScratchDirectory.h"
#include "KROAlertCatcher.h"
#include "KROAllocationGuard.h"
#include "KROAudioConverter.h"
#include "KROBufferListFixtures.h"
#include "KROG711.h"
#include "KROTestCommand.h"

namespace {

using Bytes = std::vector<std::uint8_t>;
constexpr AudioFormatFlags kSigned = kAudioFormatFlagIsSignedInteger | kAudioFormatFlagIsPacked;
constexpr AudioFormatFlags kFloat = kAudioFormatFlagIsFloat | kAudioFormatFlagIsPacked;
constexpr AudioFormatFlags kBig = kAudioFormatFlagIsBigEndian;
constexpr float kNaN = std::numeric_limits<float>::quiet_NaN();
constexpr float kInfinity = std::numeric_limits<float>::infinity();

// An interleaved file format as a file handler describes it, at 44100 Hz.
std::shared_ptr<KROAudioStreamDescription> fileFormat(AudioFormatID format, AudioFormatFlags flags,
                                                      std::uint32_t bits, std::uint32_t channels) {
    const auto description = KROAudioStreamDescription::descriptionWithSampleRate(44100, channels);
    description->setFlags(flags);
    description->setBitDepth(bits);
    description->setFormat(format);
    if (format != kAudioFormatLinearPCM) {
        description->complete();
    }
    return description;
}

std::shared_ptr<KROAudioStreamDescription> integers(std::uint32_t bits, AudioFormatFlags more = 0,
                                                    std::uint32_t channels = 2) {
    return fileFormat(kAudioFormatLinearPCM, kSigned | more, bits, channels);
}

// The working format: non-interleaved 32-bit float.
std::shared_ptr<KROAudioStreamDescription> working(std::uint32_t channels = 2) {
    return KROAudioStreamDescription::descriptionWithSampleRate(44100, channels);
}

std::shared_ptr<KROAudioConverter> converter(const std::shared_ptr<KROAudioStreamDescription>& from,
                                             const std::shared_ptr<KROAudioStreamDescription>& to) {
    KROErrorPtr error;
    auto made = KROAudioConverter::converterWithSourceFormat(*from, *to, &error);
    EXPECT_NE(made, nullptr) << (error ? error->description() : "");
    return made;
}

std::int32_t code(const char (&text)[5]) {
    return static_cast<std::int32_t>(KROFourCharCode(text));
}

Bytes randomBytes(std::size_t count, unsigned seed) {
    std::mt19937 generator(seed);
    Bytes bytes(count);
    for (auto& byte : bytes) {
        byte = static_cast<std::uint8_t>(generator());
    }
    return bytes;
}

// Floats on the grid m / 2^23 in [-1, 1], which sox's 32-bit samples hold
// exactly, full scale, zero and the smallest steps first; with overload,
// values beyond full scale that integers clip.
std::vector<float> gridSignal(std::size_t count, unsigned seed, bool overload = false) {
    std::vector<float> values{0.0f, 1.0f, -1.0f, 0.5f, -0.5f, 0x1p-23f, -0x1p-23f, 0.25f};
    if (overload) {
        values.insert(values.end(), {1.5f, -1.5f, 3.0f, -3.0f, 1.0000001f});
    }
    std::mt19937 generator(seed);
    std::uniform_int_distribution<std::int32_t> grid(-(1 << 23), (1 << 23) - 1);
    while (values.size() < count) {
        values.push_back(static_cast<float>(grid(generator)) * 0x1p-23f);
    }
    return values;
}

template <typename T> Bytes bytesOf(const std::vector<T>& values, bool bigEndian = false) {
    Bytes bytes(values.size() * sizeof(T));
    std::memcpy(bytes.data(), values.data(), bytes.size());
    for (std::size_t i = 0; bigEndian && i < bytes.size(); i += sizeof(T)) {
        std::reverse(bytes.begin() + i, bytes.begin() + i + sizeof(T));
    }
    return bytes;
}

template <typename T> std::vector<T> valuesOf(const Bytes& bytes) {
    std::vector<T> values(bytes.size() / sizeof(T));
    std::memcpy(values.data(), bytes.data(), values.size() * sizeof(T));
    return values;
}

void writeFile(const std::filesystem::path& path, const Bytes& bytes) {
    std::ofstream(path, std::ios::binary)
        .write(reinterpret_cast<const char*>(bytes.data()), std::streamsize(bytes.size()));
}

// sox on raw data, never dithering: input options, then output options.
Bytes sox(const Bytes& input, const std::string& from, const std::string& to, unsigned channels) {
    KROScratchDirectory directory;
    writeFile(directory / "in.raw", input);
    const std::string common = " -t raw -r 44100 -c " + std::to_string(channels) + " ";
    const std::string command = "sox -V1 -D" + common + from + " " +
                                (directory / "in.raw").string() + common + to + " " +
                                (directory / "out.raw").string();
    EXPECT_EQ(KRORunCommand(command).status, 0) << command;
    std::ifstream file(directory / "out.raw", std::ios::binary);
    return Bytes(std::istreambuf_iterator<char>(file), {});
}

const std::string kSoxFloat = "-e floating-point -b 32 -L";

// What libsndfile reads from raw bytes: interleaved floats, full scale 1.0.
std::vector<float> libsndfile(const Bytes& bytes, int format, unsigned channels) {
    KROScratchDirectory directory;
    writeFile(directory / "in.raw", bytes);
    SF_INFO info{};
    info.samplerate = 44100;
    info.channels = int(channels);
    info.format = SF_FORMAT_RAW | format;
    SNDFILE* sound = sf_open((directory / "in.raw").c_str(), SFM_READ, &info);
    EXPECT_NE(sound, nullptr) << sf_strerror(nullptr);
    std::vector<float> values(std::size_t(info.frames) * channels);
    if (sound) {
        sf_command(sound, SFC_SET_NORM_FLOAT, nullptr, SF_TRUE);
        EXPECT_EQ(sf_readf_float(sound, values.data(), info.frames), info.frames);
        sf_close(sound);
    }
    return values;
}

// The read path of the file handlers, interleaved again for comparison.
std::vector<float> readThrough(const KROAudioStreamDescription& format, const Bytes& bytes) {
    const auto channels = std::uint32_t(format.numberOfChannels());
    const std::size_t frames = bytes.size() / format.basicDescription()->mBytesPerFrame;
    const auto list = makeList(channels, frames);
    KROErrorPtr error;
    EXPECT_TRUE(converter(format.copy(), working(channels))
                    ->convertInput(bytes.data(), bytes.size(), *list, &error))
        << (error ? error->description() : "");
    std::vector<float> values(frames * channels);
    for (std::size_t i = 0; i < values.size(); ++i) {
        values[i] = list->channel(std::uint32_t(i % channels))[i / channels];
    }
    return values;
}

// The write path: interleaved floats, put into the working format, to file bytes.
Bytes writeThrough(const KROAudioStreamDescription& format, const std::vector<float>& values) {
    const auto channels = std::uint32_t(format.numberOfChannels());
    const std::size_t frames = values.size() / channels;
    const auto list = makeList(channels, frames);
    for (std::size_t i = 0; i < values.size(); ++i) {
        list->channel(std::uint32_t(i % channels))[i / channels] = values[i];
    }
    const std::uint32_t size = format.basicDescription()->mBytesPerFrame * std::uint32_t(frames);
    const auto bytes = KROBufferList::bufferListWithNumberOfBuffers(1, size);
    KROErrorPtr error;
    EXPECT_EQ(
        converter(working(channels), format.copy())->convertAudioBuffer(*list, *bytes, &error),
        frames)
        << (error ? error->description() : "");
    const auto* data = static_cast<const std::uint8_t*>(bytes->bufferAtIndex(0));
    return Bytes(data, data + size);
}

// The bytes converted by convertInputInBytes into size bytes.
Bytes convertBytes(const std::shared_ptr<KROAudioStreamDescription>& from,
                   const std::shared_ptr<KROAudioStreamDescription>& to, const Bytes& in,
                   std::size_t size) {
    Bytes out(size);
    EXPECT_TRUE(converter(from, to)->convertInputInBytes(in.data(), in.size(), out.data(), size));
    return out;
}

// Within step (0: exactly); a 32-bit integer read as a float is also rounded
// to the float's precision, so one unit in its last place counts as well.
void expectWithin(const std::vector<float>& actual, const std::vector<float>& expected,
                  double step) {
    ASSERT_EQ(actual.size(), expected.size());
    std::size_t misses = 0;
    for (std::size_t i = 0; i < actual.size(); ++i) {
        const float magnitude = std::fabs(expected[i]);
        const double ulp = std::nextafter(magnitude, kInfinity) - magnitude;
        if (std::fabs(double(actual[i]) - expected[i]) > (step == 0 ? 0 : std::max(step, ulp)) &&
            misses++ < 5) {
            ADD_FAILURE() << "at " << i << ": " << actual[i] << " != " << expected[i];
        }
    }
    EXPECT_EQ(misses, 0u);
}

struct OracleCase {
    const char* name;
    AudioFormatID format;
    AudioFormatFlags flags;
    std::uint32_t bits;
    const char* sox;
    int libsndfile;
    double step; // one step of the integer; 0 where the result is exact
};

const OracleCase kOracleCases[] = {
    {"u8", kAudioFormatLinearPCM, kAudioFormatFlagIsPacked, 8, "-e unsigned-integer -b 8",
     SF_FORMAT_PCM_U8, 0x1p-7},
    {"s8", kAudioFormatLinearPCM, kSigned, 8, "-e signed-integer -b 8", SF_FORMAT_PCM_S8, 0x1p-7},
    {"s16le", kAudioFormatLinearPCM, kSigned, 16, "-e signed-integer -b 16 -L", SF_FORMAT_PCM_16,
     0x1p-15},
    {"s16be", kAudioFormatLinearPCM, kSigned | kBig, 16, "-e signed-integer -b 16 -B",
     SF_FORMAT_PCM_16 | SF_ENDIAN_BIG, 0x1p-15},
    {"s24le", kAudioFormatLinearPCM, kSigned, 24, "-e signed-integer -b 24 -L", SF_FORMAT_PCM_24,
     0x1p-23},
    {"s24be", kAudioFormatLinearPCM, kSigned | kBig, 24, "-e signed-integer -b 24 -B",
     SF_FORMAT_PCM_24 | SF_ENDIAN_BIG, 0x1p-23},
    {"s32le", kAudioFormatLinearPCM, kSigned, 32, "-e signed-integer -b 32 -L", SF_FORMAT_PCM_32,
     0x1p-31},
    {"s32be", kAudioFormatLinearPCM, kSigned | kBig, 32, "-e signed-integer -b 32 -B",
     SF_FORMAT_PCM_32 | SF_ENDIAN_BIG, 0x1p-31},
    {"f32le", kAudioFormatLinearPCM, kFloat, 32, "-e floating-point -b 32 -L", SF_FORMAT_FLOAT, 0},
    {"f32be", kAudioFormatLinearPCM, kFloat | kBig, 32, "-e floating-point -b 32 -B",
     SF_FORMAT_FLOAT | SF_ENDIAN_BIG, 0},
    {"f64le", kAudioFormatLinearPCM, kFloat, 64, "-e floating-point -b 64 -L", SF_FORMAT_DOUBLE, 0},
    {"f64be", kAudioFormatLinearPCM, kFloat | kBig, 64, "-e floating-point -b 64 -B",
     SF_FORMAT_DOUBLE | SF_ENDIAN_BIG, 0},
    {"ulaw", kAudioFormatULaw, 0, 8, "-e u-law -b 8", SF_FORMAT_ULAW, 0},
    {"alaw", kAudioFormatALaw, 0, 8, "-e a-law -b 8", SF_FORMAT_ALAW, 0},
};

class KROAudioConverterFormats : public testing::TestWithParam<OracleCase> {};

} // namespace

// Each format read and written here against sox and libsndfile: bytes of
// every pattern (grid values for floats) read as the programs read them; our
// writing reads back through sox; our writing is within a step of sox's.
TEST_P(KROAudioConverterFormats, AgreeWithSoxAndLibsndfile) {
    const OracleCase& c = GetParam();
    const bool isFloat = c.flags & kAudioFormatFlagIsFloat;
    const auto format = fileFormat(c.format, c.flags, c.bits, 2);
    const std::size_t count = 2 * 4096;
    const auto grid = gridSignal(count, 11);
    const Bytes bytes =
        !isFloat       ? randomBytes(count * c.bits / 8, 12)
        : c.bits == 32 ? bytesOf(grid, c.flags & kBig)
                       : bytesOf(std::vector<double>(grid.begin(), grid.end()), c.flags & kBig);
    const auto ours = readThrough(*format, bytes);
    {
        SCOPED_TRACE("read by sox");
        // sox makes floats from its 32-bit samples rounded to 25 bits first.
        const double step = c.step == 0 ? 0 : std::max(c.step, 0x1p-24);
        expectWithin(ours, valuesOf<float>(sox(bytes, c.sox, kSoxFloat, 2)), step);
    }
    {
        SCOPED_TRACE("read by libsndfile");
        expectWithin(ours, libsndfile(bytes, c.libsndfile, 2), c.step);
    }
    {
        SCOPED_TRACE("written here, read back by sox");
        const auto values = gridSignal(count, 21, !isFloat);
        const auto written = writeThrough(*format, values);
        const auto back = readThrough(*format, written);
        expectWithin(valuesOf<float>(sox(written, c.sox, kSoxFloat, 2)), back, c.step);
        if (c.format == kAudioFormatLinearPCM) {
            // The source rounded to the nearest step after clipping to the
            // integers' range, which ends one step below 1.0.
            std::vector<float> clipped(values);
            for (float& value : clipped) {
                value = isFloat ? value : std::clamp(value, -1.0f, float(1.0 - c.step));
            }
            expectWithin(back, clipped, c.step / 2);
        }
    }
    {
        SCOPED_TRACE("written by sox");
        // For G.711 multiples of 8 / 32768, which code with no tie to round.
        std::vector<float> values = gridSignal(count, 31);
        for (std::size_t i = 0; c.format != kAudioFormatLinearPCM && i < count; ++i) {
            values[i] = std::min(std::round(values[i] * 4096), 4095.0f) * 8 / 32768;
        }
        const auto theirs = readThrough(*format, sox(bytesOf(values), kSoxFloat, c.sox, 2));
        expectWithin(readThrough(*format, writeThrough(*format, values)), theirs, c.step);
    }
}

INSTANTIATE_TEST_SUITE_P(KROAudioConverter, KROAudioConverterFormats,
                         testing::ValuesIn(kOracleCases),
                         [](const auto& info) { return std::string(info.param.name); });

// Every code decodes as sox decodes it, through the standard tables.
TEST(KROAudioConverter, EveryMuLawAndALawCodeDecodesAsSoxDecodesIt) {
    Bytes codes(256);
    std::iota(codes.begin(), codes.end(), 0);
    for (const bool muLaw : {true, false}) {
        SCOPED_TRACE(muLaw ? "mu-law" : "A-law");
        const auto format = fileFormat(muLaw ? kAudioFormatULaw : kAudioFormatALaw, 0, 8, 1);
        const auto ours = readThrough(*format, codes);
        EXPECT_EQ(ours, valuesOf<float>(sox(codes, muLaw ? "-e u-law" : "-e a-law", kSoxFloat, 1)));
        for (int i = 0; i < 256; ++i) {
            const int linear =
                muLaw ? KROMuLawToLinear(std::uint8_t(i)) : KROALawToLinear(std::uint8_t(i));
            EXPECT_EQ(ours[i], float(linear) / 32768);
        }
    }
}

// Every 16-bit value codes as sox codes it, but at an exact tie of the 14
// (mu-law) or 13 (A-law) kept bits this path rounds to even where sox rounds up.
TEST(KROAudioConverter, EverySixteenBitValueEncodesAsSoxEncodesIt) {
    std::vector<float> values(65536);
    for (int i = 0; i < 65536; ++i) {
        values[i] = float(i - 32768) / 32768;
    }
    for (const bool muLaw : {true, false}) {
        SCOPED_TRACE(muLaw ? "mu-law" : "A-law");
        const int unit = muLaw ? 4 : 8;
        const auto ours =
            writeThrough(*fileFormat(muLaw ? kAudioFormatULaw : kAudioFormatALaw, 0, 8, 1), values);
        const auto theirs = sox(bytesOf(values), kSoxFloat, muLaw ? "-e u-law" : "-e a-law", 1);
        ASSERT_EQ(ours.size(), theirs.size());
        std::size_t differences = 0;
        for (int linear = -32768; linear < 32768; ++linear) {
            const std::size_t i = std::size_t(linear + 32768);
            if (((linear % unit) + unit) % unit != unit / 2) {
                differences += ours[i] != theirs[i];
                continue;
            }
            const int below = linear - unit / 2;
            const int even = std::min((below / unit) % 2 == 0 ? below : below + unit, 32768 - unit);
            EXPECT_EQ(ours[i], muLaw ? KROLinearToMuLaw(std::int16_t(even))
                                     : KROLinearToALaw(std::int16_t(even)));
        }
        EXPECT_EQ(differences, 0u);
    }
}

// To integers: scaled by 2^(n-1), clipped, rounded to nearest with ties to
// even, NaN to 0; full scale is the largest integer at every width; unsigned
// integers are offset by half their range.
TEST(KROAudioConverter, FloatsBecomeIntegersRoundedToEvenAndClipped) {
    const std::vector<float> values{
        0.5f / 32768, 1.5f / 32768, -2.5f / 32768, -0.5f / 32768,   1, -1, 2, -2,
        kInfinity,    -kInfinity,   kNaN,          32767.4f / 32768};
    EXPECT_EQ(valuesOf<std::int16_t>(writeThrough(*integers(16, 0, 1), values)),
              (std::vector<std::int16_t>{0, 2, -2, 0, 32767, -32768, 32767, -32768, 32767, -32768,
                                         0, 32767}));
    EXPECT_EQ(valuesOf<std::int32_t>(writeThrough(*integers(32, 0, 1), {1, -1})),
              (std::vector<std::int32_t>{std::numeric_limits<std::int32_t>::max(),
                                         std::numeric_limits<std::int32_t>::min()}));
    EXPECT_EQ(writeThrough(*integers(24, 0, 1), {1, -1}), (Bytes{0xFF, 0xFF, 0x7F, 0, 0, 0x80}));
    const auto u8 = fileFormat(kAudioFormatLinearPCM, 0, 8, 1);
    EXPECT_EQ(writeThrough(*u8, {1, -1, 0}), (Bytes{255, 0, 128}));
    const auto u16 = fileFormat(kAudioFormatLinearPCM, kAudioFormatFlagIsPacked, 16, 1);
    const Bytes containers = bytesOf(std::vector<std::uint16_t>{0x8000, 0, 0xFFFF});
    EXPECT_EQ(readThrough(*u16, containers), (std::vector<float>{0, -1, 32767.0f / 32768}));
    EXPECT_EQ(readThrough(*u16, containers),
              valuesOf<float>(sox(containers, "-e unsigned-integer -b 16 -L", kSoxFloat, 1)));
}

// 12 bits in 16-bit containers, as a caller sets them: aligned high the value
// sits in the top bits, aligned low in the bottom ones.
TEST(KROAudioConverter, IntegersNarrowerThanTheirContainersAlignHighOrLow) {
    for (const bool high : {true, false}) {
        SCOPED_TRACE(high ? "high" : "low");
        const auto format = integers(16, 0, 1);
        format->basicDescription()->mBitsPerChannel = 12;
        format->basicDescription()->mFormatFlags =
            kAudioFormatFlagIsSignedInteger | (high ? kAudioFormatFlagIsAlignedHigh : 0);
        const auto containers = high ? std::vector<std::int16_t>{0x7FF0, -0x8000, 0x0010, 0x7FFF}
                                     : std::vector<std::int16_t>{0x07FF, -0x0800, 0x0001, 0x0FFF};
        EXPECT_EQ(readThrough(*format, bytesOf(containers)),
                  (std::vector<float>{2047.0f / 2048, -1, 1.0f / 2048,
                                      high ? 2047.0f / 2048 : -1.0f / 2048}));
        EXPECT_EQ(valuesOf<std::int16_t>(
                      writeThrough(*format, {2047.0f / 2048, -1, 1.0f / 2048, 0.99999f})),
                  high ? (std::vector<std::int16_t>{0x7FF0, -0x8000, 0x0010, 0x7FF0})
                       : (std::vector<std::int16_t>{0x07FF, -0x0800, 0x0001, 0x07FF}));
    }
}

// Interleaving over many channels against sox, integers to integers exactly,
// and the stereo fast paths against the general path through 64-bit floats,
// with ties, NaN, infinities and overloads, at a frame count that leaves a tail.
TEST(KROAudioConverter, EveryPathGivesTheSameValues) {
    for (const std::uint32_t channels : {1u, 3u, 6u}) {
        const auto format = integers(24, 0, channels);
        const auto bytes = randomBytes(3 * channels * 333, channels);
        const auto values = readThrough(*format, bytes);
        const auto theirs = sox(bytes, "-e signed-integer -b 24 -L", kSoxFloat, channels);
        expectWithin(values, valuesOf<float>(theirs), 0x1p-23);
        EXPECT_EQ(writeThrough(*format, values), bytes);
    }
    const auto f64 = fileFormat(kAudioFormatLinearPCM, kFloat, 64, 2);
    const auto bytes = randomBytes(4 * 2 * 5000, 5);
    EXPECT_EQ(convertBytes(f64, integers(32),
                           convertBytes(integers(32), f64, bytes, 2 * bytes.size()), bytes.size()),
              bytes);
    std::vector<float> values = gridSignal(2 * 1001, 41, true);
    const float specials[] = {0.5f / 32768,
                              1.5f / 32768,
                              -2.5f / 32768,
                              0.5f / 8388608,
                              -1.5f / 8388608,
                              kNaN,
                              kInfinity,
                              -kInfinity,
                              2,
                              -2};
    for (std::size_t i = 0; i < std::size(specials); ++i) {
        values[100 + 7 * i] = values[values.size() - 1 - i] = specials[i];
    }
    const auto doubles = writeThrough(*f64, values);
    for (const std::uint32_t bits : {8u, 16u, 24u, 32u}) {
        SCOPED_TRACE(bits);
        const auto format = integers(bits, bits == 24 ? kBig : 0);
        const auto direct = writeThrough(*format, values);
        EXPECT_EQ(direct, convertBytes(f64, format, doubles, direct.size()));
        const auto wide = valuesOf<double>(convertBytes(format, f64, direct, doubles.size()));
        EXPECT_EQ(readThrough(*format, direct), std::vector<float>(wide.begin(), wide.end()));
    }
}

// Each operation on its own path: the read path takes its frame count from the
// destination; a raw non-interleaved asset converts through the source's own
// list; whole lists convert buffer by buffer, also in place; the write path
// gives the packets it wrote.
TEST(KROAudioConverter, EachOperationConvertsWhatItIsGiven) {
    const auto read = converter(integers(16), working());
    const std::vector<std::int16_t> samples{16384, -16384, 8192, -8192, 4096, -4096};
    const auto list = makeList(2, 8);
    ASSERT_TRUE(list->setFrames(2));
    ASSERT_TRUE(read->convertInput(samples.data(), 12, *list));
    EXPECT_EQ(samplesOf(*list, 1), (std::vector<float>{-0.5f, -0.25f, 0, 0, 0, 0, 0, 0}));

    const auto raw = KROBufferList::bufferListWithNumberOfBuffers(2, 8);
    std::memcpy(raw->bufferAtIndex(0), std::array<std::int16_t, 4>{16384, 0, -32768, 1}.data(), 8);
    std::memcpy(raw->bufferAtIndex(1), std::array<std::int16_t, 4>{-16384, 8192, 32767, 0}.data(),
                8);
    const auto asset = makeList(2, 4);
    ASSERT_TRUE(converter(integers(16, kAudioFormatFlagIsNonInterleaved), working())
                    ->convertBufferToAudioBuffer(*raw, *asset));
    EXPECT_EQ(samplesOf(*asset, 0), (std::vector<float>{0.5f, 0, -1, 1.0f / 32768}));
    EXPECT_EQ(samplesOf(*asset, 1), (std::vector<float>{-0.5f, 0.25f, 32767.0f / 32768, 0}));

    const auto words = working();
    words->setFlags(kAudioFormatFlagIsSignedInteger | kAudioFormatFlagIsNonInterleaved);
    const auto ramp = makeList(2, 1000);
    for (std::uint64_t frame = 0; frame < 1000; ++frame) {
        ramp->setValue(float(frame) / 1000, frame, 0);
        ramp->setValue(-float(frame) / 1000, frame, 1);
    }
    const auto copy = makeList(2, 1000);
    ASSERT_TRUE(converter(working(), words)->convertBuffer(*ramp, *copy));
    EXPECT_EQ(static_cast<const std::int32_t*>(copy->bufferAtIndex(0))[500], 1 << 30);
    ASSERT_TRUE(converter(words, working())->convertBufferInPlace(*copy));
    for (std::uint64_t frame = 0; frame < 1000; frame += 37) {
        EXPECT_NEAR(copy->valueAtFrame(frame, 1), ramp->valueAtFrame(frame, 1), 1e-7);
    }

    const auto swapped = working(1);
    swapped->setFlags(kAudioFormatFlagIsFloat | kBig | kAudioFormatFlagIsNonInterleaved);
    std::vector<float> data{1.0f, -0.5f, 0.25f}, back(3);
    ASSERT_TRUE(converter(working(1), swapped)->convertInPlace(data.data(), data.size()));
    EXPECT_EQ(std::bit_cast<std::uint32_t>(data[0]),
              __builtin_bswap32(std::bit_cast<std::uint32_t>(1.0f)));
    ASSERT_TRUE(
        converter(swapped, working(1))->convertInputInFrames(data.data(), 3, back.data(), 3));
    EXPECT_EQ(back, (std::vector<float>{1.0f, -0.5f, 0.25f}));

    std::vector<std::int32_t> shrinking{1 << 30, -(1 << 30), 1 << 29, 0};
    ASSERT_TRUE(converter(integers(32), integers(16))
                    ->convertInputInBytes(shrinking.data(), 16, shrinking.data(), 16));
    const auto halves = valuesOf<std::int16_t>(bytesOf(shrinking));
    EXPECT_EQ(std::vector<std::int16_t>(halves.begin(), halves.begin() + 4),
              (std::vector<std::int16_t>{1 << 14, -(1 << 14), 1 << 13, 0}));

    const auto source = makeList(2, 3);
    source->setValue(0.5f, 0, 0);
    source->setValue(-0.5f, 0, 1);
    source->setValue(1.0f, 2, 1);
    const auto file = KROBufferList::bufferListWithNumberOfBuffers(1, 12);
    EXPECT_EQ(converter(working(), integers(16, kBig))->convertAudioBuffer(*source, *file), 3u);
    const auto* written = static_cast<const std::uint8_t*>(file->bufferAtIndex(0));
    EXPECT_EQ(Bytes(written, written + 12),
              (Bytes{0x40, 0, 0xC0, 0, 0, 0, 0, 0, 0, 0, 0x7F, 0xFF}));
}

namespace {

// A pull function that hands out an interleaved 16-bit stream in pieces of
// at most piece packets, then none; or fails with its failure status.
struct Feed {
    const std::int16_t* samples;
    std::uint32_t frames, piece, position = 0, calls = 0;
    OSStatus failure = noErr;

    static OSStatus pull(AudioConverterRef, std::uint32_t* packets, AudioBufferList* data,
                         AudioStreamPacketDescription**, void* self) {
        auto& feed = *static_cast<Feed*>(self);
        ++feed.calls;
        const std::uint32_t count =
            feed.failure ? 0 : std::min({*packets, feed.piece, feed.frames - feed.position});
        KROAudioBufferAt(*data, 0) =
            AudioBuffer{2, count * 4, const_cast<std::int16_t*>(feed.samples + 2 * feed.position)};
        feed.position += count;
        *packets = count;
        return feed.failure;
    }
};

} // namespace

// The callback is pulled until the destination is full; a count below the
// request is the end of the data.
TEST(KROAudioConverter, TheCallbackIsPulledUntilTheDestinationIsFull) {
    std::vector<std::int16_t> samples(2 * 1000);
    std::iota(samples.begin(), samples.end(), std::int16_t(-1000));
    Feed feed{samples.data(), 750, 300};
    const auto pulling = converter(integers(16), working());
    pulling->setCallback(Feed::pull, &feed);
    const auto list = makeList(2, 512);
    EXPECT_EQ(pulling->convertToAudioBufferUsingCallback(*list), 512u);
    EXPECT_EQ(feed.calls, 2u);
    EXPECT_EQ(list->valueAtFrame(300, 0), float(samples[600]) / 32768);
    EXPECT_EQ(list->valueAtFrame(511, 1), float(samples[1023]) / 32768);
    EXPECT_EQ(pulling->convertToAudioBufferUsingCallback(*list), 238u);
    EXPECT_EQ(list->frames(), 238u);
    EXPECT_EQ(list->valueAtFrame(237, 1), float(samples[1499]) / 32768);
    ASSERT_TRUE(list->setFrames(512));
    EXPECT_EQ(pulling->convertToAudioBufferUsingCallback(*list), 0u);
}

// Each refused call gives false or 0 and stores its status as the code, with
// the converting action; different buffer counts store nothing.
TEST(KROAudioConverter, RefusedConversionsReportTheirStatus) {
    std::vector<std::int16_t> samples(2 * 16);
    Feed failure{samples.data(), 16, 16, 0, 0, code("what")};
    const auto shortPull = [](AudioConverterRef, std::uint32_t* packets, AudioBufferList* data,
                              AudioStreamPacketDescription**, void* self) -> OSStatus {
        KROAudioBufferAt(*data, 0) = AudioBuffer{2, 4 * *packets - 2, self};
        return noErr;
    };
    const auto read = converter(integers(16), working());
    const auto write = converter(working(), integers(16));
    const auto raw = converter(integers(16, kAudioFormatFlagIsNonInterleaved), working());
    const auto narrow = converter(integers(24), integers(16));
    const auto wide = converter(integers(16), integers(32));
    const auto failing = converter(integers(16), working());
    failing->setCallback(Feed::pull, &failure);
    const auto shortPulling = converter(integers(16), working());
    shortPulling->setCallback(shortPull, samples.data());
    const std::int32_t param = kAudio_ParamError;
    const Bytes in(64, 0x11);
    Bytes out(64);
    const std::uint8_t* i = in.data();
    std::uint8_t* o = out.data();
    const auto two = makeList(2, 10);
    const auto three = makeList(3, 10);
    const auto file = KROBufferList::bufferListWithNumberOfBuffers(1, 9 * 4);
    const std::pair<std::int32_t, std::function<bool(KROErrorPtr*)>> cases[] = {
        {code("insz"), [&](auto* e) { return read->convertInput(i, 39, *two, e); }},
        {code("insz"), [&](auto* e) { return narrow->convertInputInBytes(i, 25, o, 64, e); }},
        {code("insz"),
         [&](auto* e) { return shortPulling->convertToAudioBufferUsingCallback(*two, e); }},
        {code("otsz"), [&](auto* e) { return wide->convertInputInBytes(i, 16, o, 31, e); }},
        {code("otsz"), [&](auto* e) { return write->convertAudioBuffer(*two, *file, e) != 0; }},
        {code("op??"), [&](auto* e) { return read->convertInputInBytes(i, 16, o, 32, e); }},
        {code("what"),
         [&](auto* e) { return failing->convertToAudioBufferUsingCallback(*two, e); }},
        {param, [&](auto* e) { return wide->convertInputInBytes(o, 8, o + 4, 16, e); }},
        {param, [&](auto* e) { return read->convertInput(i, 40, *three, e); }},
        {param, [&](auto* e) { return write->convertAudioBuffer(*three, *file, e) != 0; }},
        {param, [&](auto* e) { return raw->convertBufferToAudioBuffer(*three, *two, e); }},
        {param, [&](auto* e) { return read->convertToAudioBufferUsingCallback(*two, e); }},
        {param, [&](auto* e) { return KROAudioConverter().convertBufferInPlace(*two, e); }},
    };
    for (std::size_t row = 0; row < std::size(cases); ++row) {
        SCOPED_TRACE(row);
        const auto& [status, convert] = cases[row];
        ASSERT_TRUE(two->setFrames(10));
        KROErrorPtr error;
        EXPECT_FALSE(convert(&error));
        ASSERT_NE(error, nullptr);
        EXPECT_EQ(error->className(), "KROAudioConverterError");
        EXPECT_EQ(error->code(), status);
        const std::string action = KROLocalizedString("KROAudioConverter_action_converting");
        EXPECT_EQ(error->description().rfind(action, 0), 0u);
        EXPECT_EQ(out, Bytes(64));
        EXPECT_EQ(samplesOf(*two), samplesOf(*makeList(2, 10)));
        EXPECT_EQ(*static_cast<const std::uint32_t*>(file->bufferAtIndex(0)), 0u);
        EXPECT_FALSE(convert(nullptr));
    }
    KROErrorPtr error;
    EXPECT_FALSE(converter(working(), working())->convertBuffer(*two, *three, &error));
    EXPECT_FALSE(converter(working(), working())->convertBuffer(*three, *two, &error));
    EXPECT_EQ(error, nullptr);
}

// A format outside the linear PCM path fails at construction with 'fmt?', a
// change of rate or channels with 'op??', each with its own reason.
TEST(KROAudioConverter, UnsupportedFormatsFailAtConstruction) {
    const std::function<void(AudioStreamBasicDescription&)> changes[] = {
        [](auto& r) { r.mFormatID = kAudioFormatAppleIMA4; },
        [](auto& r) { r.mFormatID = kAudioFormatMPEG4AAC; },
        [](auto& r) { r.mChannelsPerFrame = 0; },
        [](auto& r) { r.mChannelsPerFrame = 0xFFFFFFFF; },
        [](auto& r) { r.mBitsPerChannel = 0; },
        [](auto& r) { r.mBitsPerChannel = 17; },
        [](auto& r) { r.mBitsPerChannel = 33; },
        [](auto& r) { r.mBitsPerChannel = 1000; },
        [](auto& r) { r.mBitsPerChannel = 0xFFFFFFFF; },
        [](auto& r) { r.mBytesPerFrame = 0; },
        [](auto& r) { r.mFramesPerPacket = 0; },
        [](auto& r) { r.mBytesPerFrame = 3; },
        [](auto& r) { r.mBytesPerPacket = 8; },
        [](auto& r) { r.mFramesPerPacket = 2; },
        [](auto& r) { r.mFormatFlags = kAudioFormatFlagIsFloat; },
        [](auto& r) {
            r.mFormatFlags = kAudioFormatFlagIsSignedInteger;
            r.mBitsPerChannel = 40;
            r.mBytesPerFrame = r.mBytesPerPacket = 10;
        },
    };
    for (const auto& change : changes) {
        AudioStreamBasicDescription record = *integers(16)->basicDescription();
        change(record);
        const auto format = KROAudioStreamDescription::descriptionWithBasicDescription(record);
        for (const bool asSource : {true, false}) {
            KROErrorPtr error;
            EXPECT_EQ(
                asSource
                    ? KROAudioConverter::converterWithSourceFormat(*format, *working(), &error)
                    : KROAudioConverter::converterWithSourceFormat(*working(), *format, &error),
                nullptr)
                << format->description();
            ASSERT_NE(error, nullptr);
            EXPECT_EQ(error->code(), code("fmt?"));
        }
    }
    KROErrorPtr error;
    const auto reason = [](const char* status) {
        return KROLocalizedString(std::string("KROAudioConverterError_failureReason_") + status);
    };
    EXPECT_EQ(KROAudioConverter::converterWithSourceFormat(*integers(12), *working(), &error),
              nullptr);
    EXPECT_EQ(error->description(), KROLocalizedString("KROAudioConverter_action_creating") + " " +
                                        KROLocalizedString("KROError_conjunction") + " " +
                                        reason("fmt?") + ".");
    for (const auto& other :
         {KROAudioStreamDescription::descriptionWithSampleRate(48000, 2), working(3)}) {
        EXPECT_EQ(KROAudioConverter::converterWithSourceFormat(*integers(16), *other, &error),
                  nullptr);
        EXPECT_EQ(error->code(), code("op??"));
    }
    for (const char* status : {"fmt?", "op??", "prop", "insz", "otsz", "!siz", "-50", "-108"}) {
        EXPECT_NE(reason(status), std::string("KROAudioConverterError_failureReason_") + status);
    }
}

// Equal when the input formats are; the descriptions are new objects read
// from the converter; properties read back what was written; the dither bit
// depth writes the dither type and leaves the depth.
TEST(KROAudioConverter, PropertiesAndEquality) {
    const auto a = converter(integers(16, kBig), working());
    EXPECT_TRUE(a->isEqual(*converter(integers(16, kBig), integers(24))));
    EXPECT_EQ(a->hash(), converter(integers(16, kBig), integers(24))->hash());
    EXPECT_FALSE(a->isEqual(*converter(integers(24), working())));
    EXPECT_FALSE(a->isEqual(KROAudioStreamDescription()));
    EXPECT_FALSE(KROAudioConverter().isEqual(KROAudioConverter()));
    EXPECT_TRUE(a->inputDescription()->isEqual(*integers(16, kBig)));
    EXPECT_TRUE(a->outputDescription()->isEqual(*working()));
    EXPECT_NE(a->inputDescription(), a->inputDescription());
    EXPECT_EQ(KROAudioConverter().inputDescription(), nullptr);

    const auto c = converter(working(), integers(24));
    EXPECT_EQ(c->quality(), kAudioConverterQuality_Medium);
    EXPECT_TRUE(c->setQuality(kAudioConverterQuality_Max));
    EXPECT_EQ(c->quality(), kAudioConverterQuality_Max);
    EXPECT_EQ(c->maximumOutputPacketSize(), 6u);
    EXPECT_EQ(c->bitrate(), 0u);
    EXPECT_TRUE(c->setDitherBitDepth(16));
    EXPECT_EQ(c->ditherType(), 16u);
    EXPECT_EQ(c->ditherBitDepth(), 0u);
    EXPECT_TRUE(c->setDitherType(2));
    EXPECT_EQ(c->ditherType(), 2u);
    EXPECT_TRUE(c->reset());
    KROErrorPtr error;
    EXPECT_FALSE(c->setBitrate(128000, &error));
    EXPECT_EQ(error->code(), code("prop"));
    EXPECT_TRUE(c->setMagicCookie({}, &error));
    EXPECT_FALSE(c->setMagicCookie({1, 2, 3}, &error));
    EXPECT_EQ(error->code(), code("prop"));
    KROAlertCatcher catcher;
    EXPECT_FALSE(c->magicCookie().has_value());
    ASSERT_EQ(catcher.alerts.size(), 1u);
    EXPECT_EQ(catcher.alerts[0]->code(), code("prop"));
    EXPECT_EQ(catcher.alerts[0]->description().rfind(
                  KROLocalizedString("KROAudioConverter_action_gettingMagicCookie"), 0),
              0u);
    const std::uint16_t small = 3;
    EXPECT_EQ(
        AudioConverterSetProperty(c->converter(), kAudioConverterPropertyDithering, 2, &small),
        code("!siz"));
    AudioStreamBasicDescription record{};
    std::uint32_t size = sizeof record - 1;
    EXPECT_EQ(AudioConverterGetProperty(
                  c->converter(), kAudioConverterCurrentInputStreamDescription, &size, &record),
              code("!siz"));
}

// Every per-call path allocates nothing, a failure without an out-argument included.
TEST(KROAudioConverter, ConversionsAllocateNothing) {
    constexpr std::uint32_t frames = 4096;
    const auto bytes = randomBytes(6 * frames, 9);
    const auto list = makeList(2, frames);
    const auto copy = makeList(2, frames);
    const auto read = converter(integers(24), working());
    const auto write = converter(working(), integers(24, kBig));
    const auto general = converter(integers(24), integers(16, kBig));
    const auto asset = converter(working(), working());
    const auto output = KROBufferList::bufferListWithNumberOfBuffers(1, 6 * frames);
    Bytes shorts(4 * frames);
    std::vector<std::int16_t> samples(2 * frames, 77);
    Feed feed{samples.data(), frames, 1000};
    const auto pull = converter(integers(16), working());
    pull->setCallback(Feed::pull, &feed);
    for (int pass = 0; pass < 3; ++pass) {
        feed.position = 0;
        KRO_EXPECT_NO_ALLOCATION(read->convertInput(bytes.data(), bytes.size(), *list));
        KRO_EXPECT_NO_ALLOCATION(write->convertAudioBuffer(*list, *output));
        KRO_EXPECT_NO_ALLOCATION(
            general->convertInputInBytes(bytes.data(), bytes.size(), shorts.data(), shorts.size()));
        KRO_EXPECT_NO_ALLOCATION(pull->convertToAudioBufferUsingCallback(*list));
        KRO_EXPECT_NO_ALLOCATION(asset->convertBufferToAudioBuffer(*list, *copy));
        KRO_EXPECT_NO_ALLOCATION(asset->convertBuffer(*list, *copy));
        KRO_EXPECT_NO_ALLOCATION(asset->convertBufferInPlace(*copy));
        KRO_EXPECT_NO_ALLOCATION(read->convertInput(bytes.data(), 5, *list));
    }
}
