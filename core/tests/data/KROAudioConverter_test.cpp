// The sample format converter, checked against sox and libsndfile.
#include <gtest/gtest.h>
#include <sndfile.h>

#include <array>
#include <bit>
#include <cmath>
#include <cstring>
#include <functional>
#include <limits>
#include <numeric>

#include "../util/KROScratchDirectory.h"
#include "../util/KROTestOracles.h"
#include "KROAlertCatcher.h"
#include "KROAllocationGuard.h"
#include "KROAudioConverter.h"
#include "KROBufferListFixtures.h"

namespace {

using Bytes = std::vector<std::uint8_t>;
using Format = std::shared_ptr<KROAudioStreamDescription>;
constexpr AudioFormatFlags kSigned = kAudioFormatFlagIsSignedInteger | kAudioFormatFlagIsPacked;
constexpr AudioFormatFlags kFloat = kAudioFormatFlagIsFloat | kAudioFormatFlagIsPacked;
constexpr AudioFormatFlags kBig = kAudioFormatFlagIsBigEndian;
constexpr float kNaN = std::numeric_limits<float>::quiet_NaN();
constexpr float kInfinity = std::numeric_limits<float>::infinity();
const std::string kSoxFloat = "-e floating-point -b 32 -L";

// An interleaved file format at 44100 Hz.
Format fileFormat(AudioFormatID id, AudioFormatFlags flags, std::uint32_t bits,
                  std::uint32_t channels = 2) {
    const auto format = KROAudioStreamDescription::descriptionWithSampleRate(44100, channels);
    format->setFlags(flags);
    format->setBitDepth(bits);
    format->setFormat(id);
    if (id != kAudioFormatLinearPCM) {
        format->complete();
    }
    return format;
}

Format integers(std::uint32_t bits, AudioFormatFlags more = 0, std::uint32_t channels = 2) {
    return fileFormat(kAudioFormatLinearPCM, kSigned | more, bits, channels);
}

// The working format: non-interleaved 32-bit float.
Format working(std::uint32_t channels = 2) {
    return KROAudioStreamDescription::descriptionWithSampleRate(44100, channels);
}

std::shared_ptr<KROAudioConverter> converter(const Format& from, const Format& to) {
    KROErrorPtr error;
    auto made = KROAudioConverter::converterWithSourceFormat(*from, *to, &error);
    EXPECT_NE(made, nullptr) << (error ? error->description() : "");
    return made;
}

std::int32_t code(const char (&text)[5]) {
    return std::int32_t(KROFourCharCode(text));
}

Bytes randomBytes(std::size_t count, unsigned seed) {
    std::mt19937 random(seed);
    Bytes bytes(count);
    std::generate(bytes.begin(), bytes.end(), [&] { return std::uint8_t(random()); });
    return bytes;
}

// Floats on the grid m / 2^23 (exact in sox's samples), specials first; overload adds clipping.
std::vector<float> gridSignal(std::size_t count, unsigned seed, bool overload = false) {
    std::vector<float> values{0, 1, -1, 0.5f, -0.5f, 0x1p-23f, -0x1p-23f};
    if (overload) {
        values.insert(values.end(), {1.5f, -1.5f, 3.0f, -3.0f, 1.0000001f});
    }
    std::mt19937 random(seed);
    while (values.size() < count) {
        values.push_back(float(std::int32_t(random() % (1 << 24)) - (1 << 23)) * 0x1p-23f);
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

// sox on raw data, never dithering: input options, then output options.
Bytes sox(const Bytes& input, const std::string& from, const std::string& to, unsigned channels) {
    KROScratchDirectory directory;
    KROWriteFile(directory / "in", input);
    const std::string raw = " -t raw -r 44100 -c " + std::to_string(channels) + " ";
    EXPECT_EQ(KRORunCommand("sox -V1 -D" + raw + from + " " + (directory / "in").string() + raw +
                            to + " " + (directory / "out").string())
                  .status,
              0);
    std::ifstream file(directory / "out", std::ios::binary);
    return Bytes(std::istreambuf_iterator<char>(file), {});
}

std::vector<float> libsndfile(const Bytes& bytes, int format, int channels) {
    KROScratchDirectory directory;
    KROWriteFile(directory / "in", bytes);
    SF_INFO info{0, 44100, channels, SF_FORMAT_RAW | format, 0, 0};
    SNDFILE* sound = sf_open((directory / "in").c_str(), SFM_READ, &info);
    std::vector<float> values(std::size_t(info.frames * channels));
    EXPECT_NE(sound, nullptr) << sf_strerror(nullptr);
    sf_command(sound, SFC_SET_NORM_FLOAT, nullptr, SF_TRUE);
    EXPECT_EQ(sf_readf_float(sound, values.data(), info.frames), info.frames);
    sf_close(sound);
    return values;
}

// The read path, interleaved for comparison.
std::vector<float> readThrough(const KROAudioStreamDescription& format, const Bytes& bytes) {
    const auto channels = std::uint32_t(format.numberOfChannels());
    const auto list = makeList(channels, bytes.size() / format.basicDescription()->mBytesPerFrame);
    EXPECT_TRUE(converter(format.copy(), working(channels))
                    ->convertInput(bytes.data(), bytes.size(), *list));
    std::vector<float> values(list->frames() * channels);
    for (std::size_t i = 0; i < values.size(); ++i) {
        values[i] = list->channel(std::uint32_t(i % channels))[i / channels];
    }
    return values;
}

// The write path: interleaved floats to file bytes.
Bytes writeThrough(const KROAudioStreamDescription& format, const std::vector<float>& values) {
    const auto channels = std::uint32_t(format.numberOfChannels());
    const auto list = makeList(channels, values.size() / channels);
    for (std::size_t i = 0; i < values.size(); ++i) {
        list->channel(std::uint32_t(i % channels))[i / channels] = values[i];
    }
    const auto size = format.basicDescription()->mBytesPerFrame * list->frames();
    const auto bytes = KROBufferList::bufferListWithNumberOfBuffers(1, size);
    EXPECT_EQ(converter(working(channels), format.copy())->convertAudioBuffer(*list, *bytes),
              list->frames());
    const auto* data = static_cast<const std::uint8_t*>(bytes->bufferAtIndex(0));
    return Bytes(data, data + size);
}

Bytes convertBytes(const Format& from, const Format& to, const Bytes& in, std::size_t size) {
    Bytes out(size);
    EXPECT_TRUE(converter(from, to)->convertInputInBytes(in.data(), in.size(), out.data(), size));
    return out;
}

// Within step (0: exactly), or one float ulp for 32-bit integers.
void expectWithin(const std::vector<float>& actual, const std::vector<float>& expected,
                  double step) {
    ASSERT_EQ(actual.size(), expected.size());
    std::size_t misses = 0;
    for (std::size_t i = 0; i < actual.size(); ++i) {
        const float magnitude = std::fabs(expected[i]);
        const double ulp = step == 0 ? 0 : std::nextafter(magnitude, kInfinity) - magnitude;
        if (std::fabs(double(actual[i]) - expected[i]) > std::max(step, ulp) && misses++ < 5) {
            ADD_FAILURE() << "at " << i << ": " << actual[i] << " != " << expected[i];
        }
    }
    EXPECT_EQ(misses, 0u);
}

// A format of the files with its sox encoding and libsndfile subformat.
struct OracleCase {
    const char* name;
    AudioFormatID format;
    AudioFormatFlags flags;
    std::uint32_t bits;
    const char* encoding;
    int libsndfile;
    std::string sox() const {
        return std::string("-e ") + encoding + " -b " + std::to_string(bits) +
               (bits == 8                             ? ""
                : flags & kAudioFormatFlagIsBigEndian ? " -B"
                                                      : " -L");
    }
    double step() const {
        return flags & kAudioFormatFlagIsFloat || format != kAudioFormatLinearPCM
                   ? 0
                   : std::ldexp(1, 1 - int(bits));
    }
};

const AudioFormatID kPCM = kAudioFormatLinearPCM;
const int kSfBig = SF_ENDIAN_BIG;
const OracleCase kOracleCases[] = {
    {"u8", kPCM, 8, 8, "unsigned-integer", SF_FORMAT_PCM_U8},
    {"s8", kPCM, kSigned, 8, "signed-integer", SF_FORMAT_PCM_S8},
    {"s16le", kPCM, kSigned, 16, "signed-integer", SF_FORMAT_PCM_16},
    {"s16be", kPCM, kSigned | kBig, 16, "signed-integer", SF_FORMAT_PCM_16 | kSfBig},
    {"s24le", kPCM, kSigned, 24, "signed-integer", SF_FORMAT_PCM_24},
    {"s24be", kPCM, kSigned | kBig, 24, "signed-integer", SF_FORMAT_PCM_24 | kSfBig},
    {"s32le", kPCM, kSigned, 32, "signed-integer", SF_FORMAT_PCM_32},
    {"s32be", kPCM, kSigned | kBig, 32, "signed-integer", SF_FORMAT_PCM_32 | kSfBig},
    {"f32le", kPCM, kFloat, 32, "floating-point", SF_FORMAT_FLOAT},
    {"f32be", kPCM, kFloat | kBig, 32, "floating-point", SF_FORMAT_FLOAT | kSfBig},
    {"f64le", kPCM, kFloat, 64, "floating-point", SF_FORMAT_DOUBLE},
    {"f64be", kPCM, kFloat | kBig, 64, "floating-point", SF_FORMAT_DOUBLE | kSfBig},
    {"ulaw", kAudioFormatULaw, 0, 8, "u-law", SF_FORMAT_ULAW},
    {"alaw", kAudioFormatALaw, 0, 8, "a-law", SF_FORMAT_ALAW},
};

class KROAudioConverterFormats : public testing::TestWithParam<OracleCase> {};

} // namespace

// Each format reads as sox and libsndfile read it, and writes what sox reads
// back, clipped and rounded, within a step of what sox writes.
TEST_P(KROAudioConverterFormats, AgreeWithSoxAndLibsndfile) {
    const OracleCase& c = GetParam();
    const bool isFloat = c.flags & kAudioFormatFlagIsFloat;
    const auto format = fileFormat(c.format, c.flags, c.bits);
    const std::size_t count = 2 * 4096;
    const auto grid = gridSignal(count, 11);
    const Bytes bytes =
        !isFloat       ? randomBytes(count * c.bits / 8, 12)
        : c.bits == 32 ? bytesOf(grid, c.flags & kBig)
                       : bytesOf(std::vector<double>(grid.begin(), grid.end()), c.flags & kBig);
    const auto ours = readThrough(*format, bytes);
    // sox makes floats from its 32-bit samples rounded to 25 bits first.
    expectWithin(ours, valuesOf<float>(sox(bytes, c.sox(), kSoxFloat, 2)),
                 c.step() ? std::max(c.step(), 0x1p-24) : 0);
    expectWithin(ours, libsndfile(bytes, c.libsndfile, 2), c.step());
    const auto values = gridSignal(count, 21, !isFloat);
    const auto written = writeThrough(*format, values);
    const auto back = readThrough(*format, written);
    expectWithin(valuesOf<float>(sox(written, c.sox(), kSoxFloat, 2)), back, c.step());
    if (c.format == kPCM) {
        std::vector<float> clipped(values);
        for (float& value : clipped) {
            value = isFloat ? value : std::clamp(value, -1.0f, float(1.0 - c.step()));
        }
        expectWithin(back, clipped, c.step() / 2);
    }
    auto plain = gridSignal(count, 31);
    for (std::size_t i = 0; c.format != kPCM && i < count; ++i) {
        plain[i] = std::min(std::round(plain[i] * 4096), 4095.0f) * 8 / 32768;
    }
    const auto theirs = readThrough(*format, sox(bytesOf(plain), kSoxFloat, c.sox(), 2));
    expectWithin(readThrough(*format, writeThrough(*format, plain)), theirs, c.step());
}

INSTANTIATE_TEST_SUITE_P(KROAudioConverter, KROAudioConverterFormats,
                         testing::ValuesIn(kOracleCases),
                         [](const auto& info) { return std::string(info.param.name); });

// G.711 ties go to the even neighbour, where sox rounds up.
TEST(KROAudioConverter, MuLawAndALawRoundTiesToEven) {
    for (const auto& [format, unit] :
         {std::pair{kAudioFormatULaw, 4}, std::pair{kAudioFormatALaw, 8}}) {
        const auto codes = [&, format = format](std::vector<int> linear) {
            std::vector<float> values;
            for (int value : linear) {
                values.push_back(float(value) / 32768);
            }
            return writeThrough(*fileFormat(format, 0, 8, 1), values);
        };
        const int half = unit / 2;
        EXPECT_EQ(codes({half, 3 * half, -half, -3 * half, 1000 * unit + half}),
                  codes({0, 2 * unit, 0, -2 * unit, 1000 * unit}));
    }
}

// Ties to even, NaN to 0, full scale the largest integer, unsigned offset by
// half, narrow integers aligned high or low in their containers.
TEST(KROAudioConverter, FloatsBecomeIntegersRoundedToEvenClippedAndAligned) {
    using Words = std::vector<std::int16_t>;
    const std::vector<float> values{
        0.5f / 32768, 1.5f / 32768, -2.5f / 32768, -0.5f / 32768,   1, -1, 2, -2,
        kInfinity,    -kInfinity,   kNaN,          32767.4f / 32768};
    EXPECT_EQ(valuesOf<std::int16_t>(writeThrough(*integers(16, 0, 1), values)),
              (Words{0, 2, -2, 0, 32767, -32768, 32767, -32768, 32767, -32768, 0, 32767}));
    EXPECT_EQ(valuesOf<std::int32_t>(writeThrough(*integers(32, 0, 1), {1, -1})),
              (std::vector<std::int32_t>{INT32_MAX, INT32_MIN}));
    EXPECT_EQ(writeThrough(*integers(24, 0, 1), {1, -1}), (Bytes{0xFF, 0xFF, 0x7F, 0, 0, 0x80}));
    EXPECT_EQ(writeThrough(*fileFormat(kPCM, 0, 8, 1), {1, -1, 0}), (Bytes{255, 0, 128}));
    const auto u16 = fileFormat(kPCM, kAudioFormatFlagIsPacked, 16, 1);
    const Bytes containers = bytesOf(std::vector<std::uint16_t>{0x8000, 0, 0xFFFF});
    EXPECT_EQ(readThrough(*u16, containers), (std::vector<float>{0, -1, 32767.0f / 32768}));
    EXPECT_EQ(readThrough(*u16, containers),
              valuesOf<float>(sox(containers, "-e unsigned-integer -b 16 -L", kSoxFloat, 1)));
    for (const bool high : {true, false}) {
        const auto format = integers(16, 0, 1);
        format->basicDescription()->mBitsPerChannel = 12;
        format->basicDescription()->mFormatFlags = high ? 4 | kAudioFormatFlagIsAlignedHigh : 4;
        const Words in = high ? Words{0x7FF0, -0x8000, 16, 0x7FFF} : Words{0x7FF, -0x800, 1, 0xFFF};
        EXPECT_EQ(readThrough(*format, bytesOf(in)),
                  (std::vector<float>{2047.f / 2048, -1, 1.f / 2048,
                                      high ? 2047.f / 2048 : -1.f / 2048}));
        EXPECT_EQ(
            valuesOf<std::int16_t>(writeThrough(*format, {2047.f / 2048, -1, 1.f / 2048, .99999f})),
            high ? (Words{0x7FF0, -0x8000, 16, 0x7FF0}) : (Words{0x7FF, -0x800, 1, 0x7FF}));
    }
}

// Many channels against sox; 32-bit integers through doubles exactly; the
// stereo fast paths against the general path, specials and tail included.
TEST(KROAudioConverter, EveryPathGivesTheSameValues) {
    for (const std::uint32_t channels : {1u, 3u, 6u}) {
        const auto format = integers(24, 0, channels);
        const auto bytes = randomBytes(3 * channels * 333, channels);
        const auto values = readThrough(*format, bytes);
        const auto theirs = sox(bytes, "-e signed-integer -b 24 -L", kSoxFloat, channels);
        expectWithin(values, valuesOf<float>(theirs), 0x1p-23);
        EXPECT_EQ(writeThrough(*format, values), bytes);
    }
    const auto f64 = fileFormat(kPCM, kFloat, 64);
    const auto bytes = randomBytes(4 * 2 * 5000, 5);
    const auto doubled = convertBytes(integers(32), f64, bytes, 2 * bytes.size());
    EXPECT_EQ(convertBytes(f64, integers(32), doubled, bytes.size()), bytes);
    std::vector<float> values = gridSignal(2 * 1001, 41, true);
    const float specials[] = {0x1p-16f, 0x3p-16f,  -0x5p-16f,  0x1p-24f, -0x3p-24f,
                              kNaN,     kInfinity, -kInfinity, 2,        -2};
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

// Each entry point converts what it is given: frames, buffers, in place.
TEST(KROAudioConverter, EachOperationConvertsWhatItIsGiven) {
    const std::vector<std::int16_t> samples{16384, -16384, 8192, -8192, 4096, -4096};
    const auto list = makeList(2, 8);
    ASSERT_TRUE(list->setFrames(2));
    ASSERT_TRUE(converter(integers(16), working())->convertInput(samples.data(), 12, *list));
    EXPECT_EQ(samplesOf(*list, 1), (std::vector<float>{-0.5f, -0.25f, 0, 0, 0, 0, 0, 0}));
    const auto raw = KROBufferList::bufferListWithNumberOfBuffers(2, 8);
    std::memcpy(raw->bufferAtIndex(0), std::array<std::int16_t, 4>{16384, 0, -32768, 1}.data(), 8);
    std::memcpy(raw->bufferAtIndex(1), std::array<std::int16_t, 4>{0, 8192, 32767, 0}.data(), 8);
    const auto asset = makeList(2, 4);
    ASSERT_TRUE(converter(integers(16, kAudioFormatFlagIsNonInterleaved), working())
                    ->convertBufferToAudioBuffer(*raw, *asset));
    EXPECT_EQ(samplesOf(*asset),
              (std::vector<std::vector<float>>{{0.5f, 0, -1, 1.0f / 32768},
                                               {0, 0.25f, 32767.0f / 32768, 0}}));
    const auto swapped = working(1);
    swapped->setFlags(kAudioFormatFlagIsFloat | kBig | kAudioFormatFlagIsNonInterleaved);
    std::vector<float> data{1.0f, -0.5f, 0.25f}, back(3);
    ASSERT_TRUE(converter(working(1), swapped)->convertInPlace(data.data(), data.size()));
    ASSERT_TRUE(
        converter(swapped, working(1))->convertInputInFrames(data.data(), 3, back.data(), 3));
    EXPECT_EQ(back, (std::vector<float>{1.0f, -0.5f, 0.25f}));
    EXPECT_NE(data, back);
}

namespace {

// Hands out interleaved 16-bit frames, at most `piece` a call, or fails with `failure`.
struct Feed {
    const std::int16_t* samples;
    std::uint32_t frames, piece, position = 0, calls = 0;
    OSStatus failure = noErr;

    static OSStatus pull(AudioConverterRef, std::uint32_t* packets, AudioBufferList* data,
                         AudioStreamPacketDescription**, void* self) {
        auto& feed = *static_cast<Feed*>(self);
        ++feed.calls;
        *packets = feed.failure ? 0 : std::min({*packets, feed.piece, feed.frames - feed.position});
        KROAudioBufferAt(*data, 0) = AudioBuffer{
            2, *packets * 4, const_cast<std::int16_t*>(feed.samples + 2 * feed.position)};
        feed.position += *packets;
        return feed.failure;
    }
};

} // namespace

// Pulled until the destination is full; a short count ends the data.
TEST(KROAudioConverter, TheCallbackIsPulledUntilTheDestinationIsFull) {
    std::vector<std::int16_t> samples(2 * 750);
    std::iota(samples.begin(), samples.end(), std::int16_t(-1000));
    Feed feed{samples.data(), 750, 300};
    const auto pulling = converter(integers(16), working());
    pulling->setCallback(Feed::pull, &feed);
    const auto list = makeList(2, 512);
    EXPECT_EQ(pulling->convertToAudioBufferUsingCallback(*list), 512u);
    EXPECT_EQ(feed.calls, 2u);
    EXPECT_EQ(list->valueAtFrame(300, 0), float(samples[600]) / 32768);
    EXPECT_EQ(pulling->convertToAudioBufferUsingCallback(*list), 238u);
    EXPECT_EQ(list->frames(), 238u);
    EXPECT_EQ(list->valueAtFrame(237, 1), float(samples[1499]) / 32768);
    ASSERT_TRUE(list->setFrames(512));
    EXPECT_EQ(pulling->convertToAudioBufferUsingCallback(*list), 0u);
}

// Each refusal writes nothing and reports its status with the operation's
// action; different buffer counts give no error.
TEST(KROAudioConverter, RefusalsReportTheirStatus) {
    using R = AudioStreamBasicDescription;
    std::vector<std::int16_t> samples(2 * 16);
    Feed failure{samples.data(), 16, 16, 0, 0, code("what")};
    const auto shortPull = [](AudioConverterRef, std::uint32_t* packets, AudioBufferList* data,
                              AudioStreamPacketDescription**, void* self) -> OSStatus {
        KROAudioBufferAt(*data, 0) = AudioBuffer{2, 4 * *packets - 2, self};
        return noErr;
    };
    const auto read = converter(integers(16), working()),
               write = converter(working(), integers(16));
    const auto narrow = converter(integers(24), integers(16)),
               wide = converter(integers(16), integers(32));
    const auto raw = converter(integers(16, kAudioFormatFlagIsNonInterleaved), working());
    const auto failing = converter(integers(16), working()),
               shorter = converter(integers(16), working());
    failing->setCallback(Feed::pull, &failure);
    shorter->setCallback(shortPull, samples.data());
    const Bytes in(64, 0x11);
    Bytes out(64);
    const std::uint8_t* i = in.data();
    std::uint8_t* o = out.data();
    const auto two = makeList(2, 10), three = makeList(3, 10);
    const auto file = KROBufferList::bufferListWithNumberOfBuffers(1, 9 * 4);
    const auto pulled = [&](const auto& c, KROErrorPtr* e) {
        return c->convertToAudioBufferUsingCallback(*two, e) != 0;
    };
    const auto check = [&](std::int32_t status, const char* action, const auto& refused) {
        ASSERT_TRUE(two->setFrames(10));
        KROErrorPtr error;
        EXPECT_FALSE(refused(&error));
        ASSERT_NE(error, nullptr);
        EXPECT_EQ(error->code(), status);
        const std::string reason = error->failureReason();
        EXPECT_EQ(reason.find("KROAudioConverterError_failureReason"), std::string::npos);
        EXPECT_EQ(error->description(), KROLocalizedString(action) + " " +
                                            KROLocalizedString("KROError_conjunction") + " " +
                                            reason + ".");
        EXPECT_EQ(out, Bytes(64));
        EXPECT_EQ(samplesOf(*two), samplesOf(*makeList(2, 10)));
        EXPECT_FALSE(refused(nullptr));
    };
    const std::uint32_t ima4 = kAudioFormatAppleIMA4, aac = kAudioFormatMPEG4AAC, all = ~0u;
    const std::pair<std::uint32_t R::*, std::uint32_t> changes[] = {
        {&R::mFormatID, ima4},        {&R::mFormatID, aac},       {&R::mChannelsPerFrame, 0},
        {&R::mChannelsPerFrame, all}, {&R::mBitsPerChannel, 0},   {&R::mBitsPerChannel, 17},
        {&R::mBitsPerChannel, 33},    {&R::mBitsPerChannel, all}, {&R::mBytesPerFrame, 3},
        {&R::mBytesPerPacket, 8},     {&R::mFramesPerPacket, 2},  {&R::mFormatFlags, 1}};
    const auto create = [](const Format& from, const Format& to) {
        return [=](KROErrorPtr* e) {
            return bool(KROAudioConverter::converterWithSourceFormat(*from, *to, e));
        };
    };
    for (const auto& [field, value] : changes) {
        R record = *integers(16)->basicDescription();
        record.*field = value;
        const auto changed = KROAudioStreamDescription::descriptionWithBasicDescription(record);
        check(code("fmt?"), "KROAudioConverter_action_creating", create(changed, working()));
        check(code("fmt?"), "KROAudioConverter_action_creating", create(working(), changed));
    }
    for (const auto& [status, from, to] :
         {std::tuple{code("fmt?"), integers(12), working()},
          std::tuple{code("fmt?"), integers(40), working()},
          std::tuple{code("op??"), integers(16), working(3)},
          std::tuple{code("op??"), integers(16),
                     KROAudioStreamDescription::descriptionWithSampleRate(48000, 2)}}) {
        check(status, "KROAudioConverter_action_creating", create(from, to));
    }
    const std::int32_t param = kAudio_ParamError;
    const std::pair<std::int32_t, std::function<bool(KROErrorPtr*)>> conversions[] = {
        {code("insz"), [&](auto* e) { return read->convertInput(i, 39, *two, e); }},
        {code("insz"), [&](auto* e) { return narrow->convertInputInBytes(i, 25, o, 64, e); }},
        {code("insz"), [&](auto* e) { return pulled(shorter, e); }},
        {code("otsz"), [&](auto* e) { return wide->convertInputInBytes(i, 16, o, 31, e); }},
        {code("otsz"), [&](auto* e) { return write->convertAudioBuffer(*two, *file, e) != 0; }},
        {code("op??"), [&](auto* e) { return read->convertInputInBytes(i, 16, o, 32, e); }},
        {code("what"), [&](auto* e) { return pulled(failing, e); }},
        {param, [&](auto* e) { return wide->convertInputInBytes(o, 8, o + 4, 16, e); }},
        {param, [&](auto* e) { return read->convertInput(i, 40, *three, e); }},
        {param, [&](auto* e) { return write->convertAudioBuffer(*three, *file, e) != 0; }},
        {param, [&](auto* e) { return raw->convertBufferToAudioBuffer(*three, *two, e); }},
        {param, [&](auto* e) { return pulled(read, e); }},
        {param, [&](auto* e) { return KROAudioConverter().convertBufferInPlace(*two, e); }},
    };
    for (const auto& [status, conversion] : conversions) {
        check(status, "KROAudioConverter_action_converting", conversion);
    }
    check(code("prop"), "KROAudioConverter_action_settingBitRate",
          [&](KROErrorPtr* e) { return read->setBitrate(128000, e); });
    check(code("prop"), "KROAudioConverter_action_settingMagicCookie", [&](KROErrorPtr* e) {
        return read->setMagicCookie({1, 2, 3}, e);
    });
    KROErrorPtr error;
    EXPECT_FALSE(converter(working(), working())->convertBuffer(*two, *three, &error));
    EXPECT_EQ(error, nullptr);
}

// Equal when the input formats are. Kept: the dither bit depth writes the dither type.
TEST(KROAudioConverter, PropertiesAndEquality) {
    const auto a = converter(integers(16, kBig), working());
    EXPECT_TRUE(a->isEqual(*converter(integers(16, kBig), integers(24))));
    EXPECT_EQ(a->hash(), converter(integers(16, kBig), integers(24))->hash());
    EXPECT_FALSE(a->isEqual(*converter(integers(24), working())));
    EXPECT_FALSE(KROAudioConverter().isEqual(KROAudioConverter()));
    EXPECT_TRUE(a->setDitherBitDepth(16));
    EXPECT_EQ(a->ditherType(), 16u);
    EXPECT_EQ(a->ditherBitDepth(), 0u);
    EXPECT_TRUE(a->setMagicCookie({}));
    KROAlertCatcher catcher;
    EXPECT_FALSE(a->magicCookie().has_value());
    ASSERT_EQ(catcher.alerts.size(), 1u);
    EXPECT_EQ(catcher.alerts[0]->description().rfind(
                  KROLocalizedString("KROAudioConverter_action_gettingMagicCookie"), 0),
              0u);
    const std::uint16_t small = 3;
    EXPECT_EQ(
        AudioConverterSetProperty(a->converter(), kAudioConverterPropertyDithering, 2, &small),
        code("!siz"));
}

// No per-call path allocates, nor a failure without an error argument.
TEST(KROAudioConverter, ConversionsAllocateNothing) {
    constexpr std::uint32_t frames = 4096;
    const auto bytes = randomBytes(6 * frames, 9);
    const auto list = makeList(2, frames), copy = makeList(2, frames);
    const auto read = converter(integers(24), working()),
               write = converter(working(), integers(24, kBig));
    const auto general = converter(integers(24), integers(16, kBig));
    const auto asset = converter(working(), working()), pull = converter(integers(16), working());
    const auto output = KROBufferList::bufferListWithNumberOfBuffers(1, 6 * frames);
    Bytes shorts(4 * frames);
    std::vector<std::int16_t> samples(2 * frames, 77);
    Feed feed{samples.data(), frames, 1000};
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
