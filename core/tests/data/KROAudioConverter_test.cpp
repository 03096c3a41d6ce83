// Part 1.4: the sample format converter, with the linear PCM path checked
// against sox and libsndfile, which nobody here wrote.
#include <gtest/gtest.h>
#include <sndfile.h>

#include <algorithm>
#include <bit>
#include <cmath>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <limits>
#include <memory>
#include <random>
#include <string>
#include <vector>

#include <unistd.h>

#include "KROAllocationGuard.h"
#include "KROAudioConverter.h"
#include "KROG711.h"

namespace {

constexpr double sampleRate = 44100;

// ---- Formats ---------------------------------------------------------------

// An interleaved file format as a file handler describes it.
std::shared_ptr<KROAudioStreamDescription> fileFormat(AudioFormatID format, AudioFormatFlags flags,
                                                      std::uint32_t bits,
                                                      std::uint32_t channels = 2) {
    const auto description = KROAudioStreamDescription::descriptionWithSampleRate(sampleRate, 0);
    description->setFlags(flags);
    description->setBitDepth(bits);
    description->setNumberOfChannels(channels);
    description->setFormat(format);
    if (format != kAudioFormatLinearPCM) {
        description->complete();
    }
    return description;
}

std::shared_ptr<KROAudioStreamDescription>
integerFormat(std::uint32_t bits, AudioFormatFlags more = 0, std::uint32_t channels = 2) {
    return fileFormat(kAudioFormatLinearPCM,
                      kAudioFormatFlagIsSignedInteger | kAudioFormatFlagIsPacked | more, bits,
                      channels);
}

// The working format: non-interleaved 32-bit float.
std::shared_ptr<KROAudioStreamDescription> workingFormat(std::uint32_t channels = 2) {
    return KROAudioStreamDescription::descriptionWithSampleRate(sampleRate, channels);
}

std::shared_ptr<KROAudioConverter> makeConverter(const KROAudioStreamDescription& source,
                                                 const KROAudioStreamDescription& destination) {
    KROErrorPtr error;
    auto converter = KROAudioConverter::converterWithSourceFormat(source, destination, &error);
    EXPECT_NE(converter, nullptr) << (error ? error->description() : std::string());
    return converter;
}

std::shared_ptr<KROAudioBufferList> audioList(std::uint32_t channels, std::uint64_t frames) {
    auto list = KROAudioBufferList::bufferListWithChannels(channels, frames);
    EXPECT_NE(list, nullptr);
    return list;
}

std::int32_t code(const char (&text)[5]) {
    return static_cast<std::int32_t>(KROFourCharCode(text));
}

void expectConverterError(const KROErrorPtr& error, std::int32_t expected) {
    ASSERT_NE(error, nullptr);
    EXPECT_EQ(error->className(), "KROAudioConverterError");
    EXPECT_EQ(error->code(), expected);
}

// ---- Signals ---------------------------------------------------------------

std::vector<std::uint8_t> randomBytes(std::size_t count, unsigned seed) {
    std::mt19937 generator(seed);
    std::vector<std::uint8_t> bytes(count);
    for (auto& byte : bytes) {
        byte = static_cast<std::uint8_t>(generator());
    }
    return bytes;
}

// Floats on the grid m / 2^23 within [-1, 1], which sox's 32-bit integer
// samples hold exactly, with full scale, zero and the smallest steps first.
std::vector<float> gridSignal(std::size_t count, unsigned seed) {
    std::vector<float> values{0.0f, 1.0f, -1.0f, 0.5f, -0.5f, 0x1p-23f, -0x1p-23f, 0.25f};
    std::mt19937 generator(seed);
    std::uniform_int_distribution<std::int32_t> grid(-(1 << 23), (1 << 23) - 1);
    while (values.size() < count) {
        values.push_back(static_cast<float>(grid(generator)) * 0x1p-23f);
    }
    values.resize(count);
    return values;
}

// Random multiples of 8 / 32768: values that G.711 codes with no tie in the
// rounding to 14 (mu-law) or 13 (A-law) bits, where sox rounds ties up.
std::vector<float> codeGridSignal(std::size_t count, unsigned seed) {
    std::mt19937 generator(seed);
    std::uniform_int_distribution<int> grid(-4096, 4095);
    std::vector<float> values(count);
    for (float& value : values) {
        value = float(grid(generator) * 8) / 32768;
    }
    return values;
}

// The grid signal with values beyond full scale, which integers clip.
std::vector<float> clippingSignal(std::size_t count, unsigned seed) {
    std::vector<float> values = gridSignal(count, seed);
    const float beyond[] = {1.5f, -1.5f, 3.0f, -3.0f, 1.0000001f};
    std::copy(std::begin(beyond), std::end(beyond), values.begin() + 8);
    return values;
}

template <typename T>
std::vector<std::uint8_t> bytesOf(const std::vector<T>& values, bool bigEndian) {
    std::vector<std::uint8_t> bytes(values.size() * sizeof(T));
    std::memcpy(bytes.data(), values.data(), bytes.size());
    if (bigEndian) {
        for (std::size_t i = 0; i < bytes.size(); i += sizeof(T)) {
            std::reverse(bytes.begin() + i, bytes.begin() + i + sizeof(T));
        }
    }
    return bytes;
}

// ---- sox and libsndfile ----------------------------------------------------

class TemporaryDirectory {
public:
    TemporaryDirectory() {
        path_ = std::filesystem::temp_directory_path() /
                ("krocore-converter-" + std::to_string(::getpid()));
        std::filesystem::create_directories(path_);
    }
    ~TemporaryDirectory() { std::filesystem::remove_all(path_); }
    std::filesystem::path operator/(const std::string& name) const { return path_ / name; }

private:
    std::filesystem::path path_;
};

void writeFile(const std::filesystem::path& path, const std::vector<std::uint8_t>& bytes) {
    std::ofstream file(path, std::ios::binary);
    file.write(reinterpret_cast<const char*>(bytes.data()), std::streamsize(bytes.size()));
}

std::vector<std::uint8_t> readFile(const std::filesystem::path& path) {
    std::ifstream file(path, std::ios::binary);
    return std::vector<std::uint8_t>(std::istreambuf_iterator<char>(file), {});
}

// Runs sox on raw data: input options, then output options; -D so that sox
// never dithers, -V1 so that it reports only failures.
std::vector<std::uint8_t> sox(const std::vector<std::uint8_t>& input, const std::string& from,
                              const std::string& to, std::uint32_t channels) {
    TemporaryDirectory directory;
    const auto in = directory / "in.raw";
    const auto out = directory / "out.raw";
    writeFile(in, input);
    const std::string common = " -t raw -r 44100 -c " + std::to_string(channels) + " ";
    const std::string command = "sox -V1 -D" + common + from + " '" + in.string() + "'" + common +
                                to + " '" + out.string() + "'";
    EXPECT_EQ(std::system(command.c_str()), 0) << command;
    return readFile(out);
}

const std::string soxFloat = "-e floating-point -b 32 -L";

std::vector<float> floatsOf(const std::vector<std::uint8_t>& bytes) {
    std::vector<float> values(bytes.size() / sizeof(float));
    std::memcpy(values.data(), bytes.data(), values.size() * sizeof(float));
    return values;
}

// A memory file for sf_open_virtual.
struct MemoryFile {
    const std::vector<std::uint8_t>* bytes;
    sf_count_t position = 0;

    static sf_count_t length(void* self) {
        return sf_count_t(static_cast<MemoryFile*>(self)->bytes->size());
    }
    static sf_count_t seek(sf_count_t offset, int whence, void* self) {
        auto& file = *static_cast<MemoryFile*>(self);
        const sf_count_t base = whence == SEEK_SET   ? 0
                                : whence == SEEK_CUR ? file.position
                                                     : sf_count_t(file.bytes->size());
        file.position = base + offset;
        return file.position;
    }
    static sf_count_t read(void* destination, sf_count_t count, void* self) {
        auto& file = *static_cast<MemoryFile*>(self);
        const sf_count_t left = sf_count_t(file.bytes->size()) - file.position;
        const sf_count_t n = std::max<sf_count_t>(0, std::min(count, left));
        std::memcpy(destination, file.bytes->data() + file.position, std::size_t(n));
        file.position += n;
        return n;
    }
    static sf_count_t write(const void*, sf_count_t, void*) { return 0; }
    static sf_count_t tell(void* self) { return static_cast<MemoryFile*>(self)->position; }
};

// What libsndfile makes of raw bytes: interleaved floats, full scale 1.0.
std::vector<float> libsndfileFloats(const std::vector<std::uint8_t>& bytes, int format,
                                    std::uint32_t channels, std::size_t frames) {
    MemoryFile file{&bytes};
    SF_VIRTUAL_IO io{MemoryFile::length, MemoryFile::seek, MemoryFile::read, MemoryFile::write,
                     MemoryFile::tell};
    SF_INFO info{};
    info.samplerate = int(sampleRate);
    info.channels = int(channels);
    info.format = SF_FORMAT_RAW | format;
    SNDFILE* sound = sf_open_virtual(&io, SFM_READ, &info, &file);
    EXPECT_NE(sound, nullptr) << sf_strerror(nullptr);
    std::vector<float> values(frames * channels);
    if (sound) {
        sf_command(sound, SFC_SET_NORM_FLOAT, nullptr, SF_TRUE);
        EXPECT_EQ(sf_readf_float(sound, values.data(), sf_count_t(frames)), sf_count_t(frames));
        sf_close(sound);
    }
    return values;
}

// ---- Conversion through the operations of Algorithm 7 ----------------------

// The read path of the file handlers (Algorithm 3): interleaved file bytes to
// the working format; the result interleaved again for comparison.
std::vector<float> readThroughConverter(const KROAudioStreamDescription& format,
                                        const std::vector<std::uint8_t>& bytes) {
    const std::uint32_t channels = std::uint32_t(format.numberOfChannels());
    const std::size_t frames = bytes.size() / format.basicDescription()->mBytesPerFrame;
    const auto converter = makeConverter(format, *workingFormat(channels));
    const auto list = audioList(channels, frames);
    KROErrorPtr error;
    EXPECT_TRUE(converter->convertInput(bytes.data(), bytes.size(), *list, &error))
        << (error ? error->description() : std::string());
    std::vector<float> values(frames * channels);
    for (std::size_t frame = 0; frame < frames; ++frame) {
        for (std::uint32_t channel = 0; channel < channels; ++channel) {
            values[frame * channels + channel] = list->channel(channel)[frame];
        }
    }
    return values;
}

// The write path (Algorithm 5): interleaved floats, put into the working
// format, to file bytes.
std::vector<std::uint8_t> writeThroughConverter(const KROAudioStreamDescription& format,
                                                const std::vector<float>& values) {
    const std::uint32_t channels = std::uint32_t(format.numberOfChannels());
    const std::size_t frames = values.size() / channels;
    const auto list = audioList(channels, frames);
    for (std::size_t frame = 0; frame < frames; ++frame) {
        for (std::uint32_t channel = 0; channel < channels; ++channel) {
            list->channel(channel)[frame] = values[frame * channels + channel];
        }
    }
    const auto converter = makeConverter(*workingFormat(channels), format);
    const std::uint32_t bytesPerFrame = format.basicDescription()->mBytesPerFrame;
    const auto bytes = KROBufferList::bufferListWithNumberOfBuffers(1, frames * bytesPerFrame);
    KROErrorPtr error;
    EXPECT_EQ(converter->convertAudioBuffer(*list, *bytes, &error), frames)
        << (error ? error->description() : std::string());
    EXPECT_EQ(bytes->length(), frames * bytesPerFrame);
    const auto* data = static_cast<const std::uint8_t*>(bytes->bufferAtIndex(0));
    return std::vector<std::uint8_t>(data, data + frames * bytesPerFrame);
}

// ---- The formats checked against the oracles -------------------------------

struct OracleCase {
    const char* name;
    AudioFormatID format;
    AudioFormatFlags flags;
    std::uint32_t bits;
    const char* sox;
    int libsndfile;
    // One step of the integer, or 0 where the result must be exact.
    double step;
    bool isFloat;
    bool bigEndian;
};

constexpr AudioFormatFlags signedPacked =
    kAudioFormatFlagIsSignedInteger | kAudioFormatFlagIsPacked;
constexpr AudioFormatFlags floatPacked = kAudioFormatFlagIsFloat | kAudioFormatFlagIsPacked;
constexpr AudioFormatFlags big = kAudioFormatFlagIsBigEndian;

const OracleCase oracleCases[] = {
    {"u8", kAudioFormatLinearPCM, kAudioFormatFlagIsPacked, 8, "-e unsigned-integer -b 8",
     SF_FORMAT_PCM_U8, 0x1p-7, false, false},
    {"s8", kAudioFormatLinearPCM, signedPacked, 8, "-e signed-integer -b 8", SF_FORMAT_PCM_S8,
     0x1p-7, false, false},
    {"s16le", kAudioFormatLinearPCM, signedPacked, 16, "-e signed-integer -b 16 -L",
     SF_FORMAT_PCM_16 | SF_ENDIAN_LITTLE, 0x1p-15, false, false},
    {"s16be", kAudioFormatLinearPCM, signedPacked | big, 16, "-e signed-integer -b 16 -B",
     SF_FORMAT_PCM_16 | SF_ENDIAN_BIG, 0x1p-15, false, true},
    {"s24le", kAudioFormatLinearPCM, signedPacked, 24, "-e signed-integer -b 24 -L",
     SF_FORMAT_PCM_24 | SF_ENDIAN_LITTLE, 0x1p-23, false, false},
    {"s24be", kAudioFormatLinearPCM, signedPacked | big, 24, "-e signed-integer -b 24 -B",
     SF_FORMAT_PCM_24 | SF_ENDIAN_BIG, 0x1p-23, false, true},
    {"s32le", kAudioFormatLinearPCM, signedPacked, 32, "-e signed-integer -b 32 -L",
     SF_FORMAT_PCM_32 | SF_ENDIAN_LITTLE, 0x1p-31, false, false},
    {"s32be", kAudioFormatLinearPCM, signedPacked | big, 32, "-e signed-integer -b 32 -B",
     SF_FORMAT_PCM_32 | SF_ENDIAN_BIG, 0x1p-31, false, true},
    {"f32le", kAudioFormatLinearPCM, floatPacked, 32, "-e floating-point -b 32 -L",
     SF_FORMAT_FLOAT | SF_ENDIAN_LITTLE, 0, true, false},
    {"f32be", kAudioFormatLinearPCM, floatPacked | big, 32, "-e floating-point -b 32 -B",
     SF_FORMAT_FLOAT | SF_ENDIAN_BIG, 0, true, true},
    {"f64le", kAudioFormatLinearPCM, floatPacked, 64, "-e floating-point -b 64 -L",
     SF_FORMAT_DOUBLE | SF_ENDIAN_LITTLE, 0, true, false},
    {"f64be", kAudioFormatLinearPCM, floatPacked | big, 64, "-e floating-point -b 64 -B",
     SF_FORMAT_DOUBLE | SF_ENDIAN_BIG, 0, true, true},
    {"ulaw", kAudioFormatULaw, 0, 8, "-e u-law -b 8", SF_FORMAT_ULAW, 0, false, false},
    {"alaw", kAudioFormatALaw, 0, 8, "-e a-law -b 8", SF_FORMAT_ALAW, 0, false, false},
};

class Part_1_4_Oracle : public testing::TestWithParam<OracleCase> {
protected:
    static constexpr std::size_t frames = 4096;
    static constexpr std::uint32_t channels = 2;

    std::shared_ptr<KROAudioStreamDescription> format() const {
        const OracleCase& c = GetParam();
        return fileFormat(c.format, c.flags, c.bits, channels);
    }

    // Bytes of every pattern for integers and G.711; grid values for floats,
    // which sox carries through its 32-bit integers exactly.
    std::vector<std::uint8_t> fileBytes() const {
        const OracleCase& c = GetParam();
        const std::vector<float> values = gridSignal(frames * channels, 11);
        if (c.isFloat && c.bits == 32) {
            return bytesOf(values, c.bigEndian);
        }
        if (c.isFloat) {
            return bytesOf(std::vector<double>(values.begin(), values.end()), c.bigEndian);
        }
        return randomBytes(frames * format()->basicDescription()->mBytesPerFrame, 12);
    }
};

// Integers within one step; but a 32-bit integer read as a float is also
// rounded to the float's precision, and programs may round it another way,
// so one unit in the last place of the float counts as well.
void expectWithin(const std::vector<float>& actual, const std::vector<float>& expected, double step,
                  const char* what) {
    ASSERT_EQ(actual.size(), expected.size()) << what;
    std::size_t misses = 0;
    for (std::size_t i = 0; i < actual.size(); ++i) {
        const float magnitude = std::fabs(expected[i]);
        const double ulp = std::nextafter(magnitude, INFINITY) - magnitude;
        const double tolerance = step == 0 ? 0 : std::max(step, ulp);
        const bool close = std::fabs(double(actual[i]) - expected[i]) <= tolerance;
        if (!close && misses++ < 5) {
            ADD_FAILURE() << what << " at " << i << ": " << actual[i] << " != " << expected[i];
        }
    }
    EXPECT_EQ(misses, 0u) << what;
}

} // namespace

// ---- Edge cases worth testing ---------------------------------------------

TEST(Part_1_4, TwoConvertersWithEqualInputFormatsAndDifferentOutputFormatsAreEqual) {
    const auto a = makeConverter(*integerFormat(16), *workingFormat());
    const auto b = makeConverter(*integerFormat(16), *integerFormat(24));
    const auto c = makeConverter(*integerFormat(24), *workingFormat());
    EXPECT_TRUE(a->isEqual(*b));
    EXPECT_TRUE(a->isEqualToConverter(*b));
    EXPECT_EQ(a->hash(), b->hash());
    EXPECT_FALSE(a->isEqual(*c));
    EXPECT_TRUE(a->isEqual(*a));
    EXPECT_FALSE(a->isEqual(KROAudioStreamDescription()));
}

TEST(Part_1_4, SetMagicCookieWithEmptyDataReturnsTrueAndDoesNotTouchTheConverter) {
    const auto converter = makeConverter(*integerFormat(16), *workingFormat());
    KROErrorPtr error;
    EXPECT_TRUE(converter->setMagicCookie({}, &error));
    EXPECT_EQ(error, nullptr);
    // A cookie that reaches the converter fails: linear PCM takes none.
    EXPECT_FALSE(converter->setMagicCookie({1, 2, 3}, &error));
    expectConverterError(error, code("prop"));
}

TEST(Part_1_4, ConvertBufferToBufferWithListsOfDifferentBufferCountsReturnsFalseAndStoresNothing) {
    const auto converter = makeConverter(*workingFormat(), *workingFormat());
    const auto two = audioList(2, 16);
    const auto three = audioList(3, 16);
    KROErrorPtr error;
    EXPECT_FALSE(converter->convertBuffer(*two, *three, &error));
    EXPECT_EQ(error, nullptr);
    EXPECT_FALSE(converter->convertBuffer(*three, *two, &error));
    EXPECT_EQ(error, nullptr);
}

TEST(Part_1_4, ConvertAudioBufferToBufferReturns0OnFailureAndTheCallerReadsThatAsNoPacketsWritten) {
    const auto converter = makeConverter(*workingFormat(), *integerFormat(16));
    const auto source = audioList(2, 100);
    source->setValue(0.5f, 0, 0);
    // Room for 99 frames, not 100: nothing is written.
    const auto destination = KROBufferList::bufferListWithNumberOfBuffers(1, 99 * 4);
    KROErrorPtr error;
    EXPECT_EQ(converter->convertAudioBuffer(*source, *destination, &error), 0u);
    expectConverterError(error, code("otsz"));
    const auto* bytes = static_cast<const std::uint8_t*>(destination->bufferAtIndex(0));
    EXPECT_TRUE(std::all_of(bytes, bytes + destination->length(), [](auto b) { return b == 0; }));
    EXPECT_EQ(destination->length(), 99u * 4);
    // Without an out-argument the failure is the 0 alone.
    EXPECT_EQ(converter->convertAudioBuffer(*source, *destination), 0u);
}

TEST(Part_1_4, SetDitherBitDepthChangesWhatDitherTypeReportsAndLeavesDitherBitDepth) {
    const auto converter = makeConverter(*workingFormat(), *integerFormat(16));
    EXPECT_EQ(converter->ditherType(), 0u);
    EXPECT_EQ(converter->ditherBitDepth(), 0u);
    EXPECT_TRUE(converter->setDitherBitDepth(16));
    EXPECT_EQ(converter->ditherType(), 16u);
    EXPECT_EQ(converter->ditherBitDepth(), 0u);
    EXPECT_TRUE(converter->setDitherType(2));
    EXPECT_EQ(converter->ditherType(), 2u);
    EXPECT_EQ(converter->ditherBitDepth(), 0u);
}

// ---- Construction and codes -------------------------------------------------

TEST(Part_1_4, UnsupportedFormatsFailAtConstructionWithFmt) {
    AudioStreamBasicDescription broken = *integerFormat(16)->basicDescription();
    std::vector<AudioStreamBasicDescription> records;
    const auto with = [&](auto change) {
        AudioStreamBasicDescription record = broken;
        change(record);
        records.push_back(record);
    };
    with([](auto& r) { r.mFormatID = kAudioFormatAppleIMA4; });
    with([](auto& r) { r.mFormatID = kAudioFormatMPEG4AAC; });
    with([](auto& r) { r.mChannelsPerFrame = 0; });
    with([](auto& r) { r.mBitsPerChannel = 0; });
    with([](auto& r) { r.mBitsPerChannel = 17; });
    with([](auto& r) { r.mBitsPerChannel = 33; });
    with([](auto& r) { r.mBitsPerChannel = 1000; });
    with([](auto& r) { r.mBitsPerChannel = 0xFFFFFFFF; });
    with([](auto& r) { r.mBytesPerFrame = 3; });
    with([](auto& r) { r.mBytesPerFrame = 0; });
    with([](auto& r) { r.mBytesPerPacket = 8; });
    with([](auto& r) { r.mFramesPerPacket = 0; });
    with([](auto& r) { r.mFramesPerPacket = 2; });
    with([](auto& r) { r.mChannelsPerFrame = 0xFFFFFFFF; });
    with([](auto& r) { r.mFormatFlags = kAudioFormatFlagIsFloat; });
    with([](auto& r) {
        r.mFormatFlags = kAudioFormatFlagIsSignedInteger;
        r.mBitsPerChannel = 40;
        r.mBytesPerFrame = r.mBytesPerPacket = 10;
    });
    for (const AudioStreamBasicDescription& record : records) {
        const auto format = KROAudioStreamDescription::descriptionWithBasicDescription(record);
        for (const bool asSource : {true, false}) {
            KROErrorPtr error;
            const auto converter = asSource ? KROAudioConverter::converterWithSourceFormat(
                                                  *format, *workingFormat(), &error)
                                            : KROAudioConverter::converterWithSourceFormat(
                                                  *workingFormat(), *format, &error);
            EXPECT_EQ(converter, nullptr) << format->description();
            expectConverterError(error, code("fmt?"));
        }
    }
}

TEST(Part_1_4, TheFmtFailureUsesTheCharacterKeyAndTheCreatingAction) {
    const auto format = integerFormat(16);
    format->setBitDepth(12); // 1 byte per channel by Part 1.3's refresh: no such integer
    KROErrorPtr error;
    EXPECT_EQ(KROAudioConverter::converterWithSourceFormat(*format, *workingFormat(), &error),
              nullptr);
    expectConverterError(error, code("fmt?"));
    const std::string reason = KROLocalizedString("KROAudioConverterError_failureReason_fmt?");
    ASSERT_NE(reason, "KROAudioConverterError_failureReason_fmt?");
    EXPECT_EQ(error->failureReason(), reason);
    EXPECT_EQ(error->description(), KROLocalizedString("KROAudioConverter_action_creating") + " " +
                                        KROLocalizedString("KROError_conjunction") + " " + reason +
                                        ".");
    EXPECT_EQ(KROAudioConverter::converterWithSourceFormat(*format, *workingFormat()), nullptr);
}

TEST(Part_1_4, ARateOrChannelChangeFailsAtConstructionWithOp) {
    KROErrorPtr error;
    const auto other = KROAudioStreamDescription::descriptionWithSampleRate(48000, 2);
    EXPECT_EQ(KROAudioConverter::converterWithSourceFormat(*integerFormat(16), *other, &error),
              nullptr);
    expectConverterError(error, code("op??"));
    EXPECT_EQ(
        KROAudioConverter::converterWithSourceFormat(*integerFormat(16), *workingFormat(3), &error),
        nullptr);
    expectConverterError(error, code("op??"));
    EXPECT_NE(error->failureReason(), KROLocalizedString("KROError_defaultFailureReason"));
}

TEST(Part_1_4, EveryCodeOfTheConverterHasAText) {
    for (const char* key : {"fmt?", "op??", "prop", "insz", "otsz", "!siz", "-50", "-108"}) {
        const std::string full = std::string("KROAudioConverterError_failureReason_") + key;
        EXPECT_NE(KROLocalizedString(full), full);
    }
    for (const char* key :
         {"creating", "resetting", "settingQuality", "settingBitRate", "gettingMagicCookie",
          "settingMagicCookie", "settingDitherType", "settingDitherBitDepth", "converting"}) {
        const std::string full = std::string("KROAudioConverter_action_") + key;
        EXPECT_NE(KROLocalizedString(full), full);
    }
    EXPECT_EQ(KROAudioConverterError::failureReasonForError(kAudio_ParamError),
              KROLocalizedString("KROAudioConverterError_failureReason_-50"));
}

TEST(Part_1_4, TheDescriptionsAreNewObjectsReadFromTheConverter) {
    const auto input = integerFormat(24, kAudioFormatFlagIsBigEndian);
    const auto output = workingFormat();
    const auto converter = makeConverter(*input, *output);
    const auto readInput = converter->inputDescription();
    const auto readOutput = converter->outputDescription();
    ASSERT_NE(readInput, nullptr);
    ASSERT_NE(readOutput, nullptr);
    EXPECT_TRUE(readInput->isEqual(*input));
    EXPECT_TRUE(readOutput->isEqual(*output));
    EXPECT_NE(readInput.get(), converter->inputDescription().get());
    EXPECT_NE(converter->converter(), nullptr);
}

TEST(Part_1_4, PropertiesReadBackWhatWasWrittenAndFailedReadsGive0) {
    const auto converter = makeConverter(*workingFormat(), *integerFormat(24));
    EXPECT_EQ(converter->quality(), kAudioConverterQuality_Medium);
    EXPECT_TRUE(converter->setQuality(kAudioConverterQuality_Max));
    EXPECT_EQ(converter->quality(), kAudioConverterQuality_Max);
    EXPECT_EQ(converter->maximumOutputPacketSize(), 6u);
    EXPECT_EQ(converter->bitrate(), 0u);
    KROErrorPtr error;
    EXPECT_FALSE(converter->setBitrate(128000, &error));
    expectConverterError(error, code("prop"));
    EXPECT_TRUE(converter->reset(&error));
}

TEST(Part_1_4, MagicCookieOfLinearPCMIsNoneAndShownByAlert) {
    std::vector<std::shared_ptr<const KROError>> alerts;
    KROError::setAlertHost(KROAlertHost{
        [] { return true; },
        [&](std::shared_ptr<const KROError> error) { alerts.push_back(std::move(error)); }});
    const auto converter = makeConverter(*workingFormat(), *integerFormat(16));
    EXPECT_FALSE(converter->magicCookie().has_value());
    KROError::setAlertHost({});
    ASSERT_EQ(alerts.size(), 1u);
    EXPECT_EQ(alerts[0]->code(), code("prop"));
    EXPECT_EQ(alerts[0]->description().rfind(
                  KROLocalizedString("KROAudioConverter_action_gettingMagicCookie"), 0),
              0u);
}

TEST(Part_1_4, APropertyOfTheWrongSizeFailsWithSiz) {
    const auto converter = makeConverter(*workingFormat(), *integerFormat(16));
    const std::uint16_t small = 3;
    EXPECT_EQ(AudioConverterSetProperty(converter->converter(), kAudioConverterPropertyDithering,
                                        sizeof small, &small),
              code("!siz"));
    AudioStreamBasicDescription record{};
    std::uint32_t size = sizeof record - 1;
    EXPECT_EQ(AudioConverterGetProperty(converter->converter(),
                                        kAudioConverterCurrentInputStreamDescription, &size,
                                        &record),
              code("!siz"));
    std::uint32_t tiny = 2;
    std::uint32_t word = 0;
    EXPECT_EQ(AudioConverterGetProperty(converter->converter(),
                                        kAudioConverterSampleRateConverterQuality, &tiny, &word),
              code("!siz"));
}

TEST(Part_1_4, AConverterThatWasNeverMadeFailsEveryConversionWithParamError) {
    const auto converter = std::make_shared<KROAudioConverter>();
    const auto list = audioList(2, 8);
    KROErrorPtr error;
    EXPECT_FALSE(converter->convertBufferInPlace(*list, &error));
    expectConverterError(error, kAudio_ParamError);
    EXPECT_EQ(converter->convertToAudioBufferUsingCallback(*list, &error), 0u);
    EXPECT_EQ(converter->inputDescription(), nullptr);
    EXPECT_EQ(converter->quality(), 0u);
    EXPECT_FALSE(converter->reset(&error));
    EXPECT_FALSE(converter->isEqual(*std::make_shared<KROAudioConverter>()));
}

// ---- Rounding and clipping (the rule in KROSampleConversion.h) -------------

TEST(Part_1_4, FloatToIntegerRoundsToNearestEvenAndClips) {
    const std::vector<float> values{0.5f / 32768,
                                    1.5f / 32768,
                                    -2.5f / 32768,
                                    -0.5f / 32768,
                                    1.0f,
                                    -1.0f,
                                    2.0f,
                                    -2.0f,
                                    std::numeric_limits<float>::infinity(),
                                    -std::numeric_limits<float>::infinity(),
                                    std::numeric_limits<float>::quiet_NaN(),
                                    32767.4f / 32768};
    const std::vector<std::int16_t> expected{0,     2,      -2,    0,      32767, -32768,
                                             32767, -32768, 32767, -32768, 0,     32767};
    const auto bytes = writeThroughConverter(*integerFormat(16, 0, 1), values);
    std::vector<std::int16_t> written(values.size());
    std::memcpy(written.data(), bytes.data(), bytes.size());
    EXPECT_EQ(written, expected);
}

TEST(Part_1_4, FullScaleIsTheLargestIntegerAtEveryWidth) {
    const std::vector<float> values{1.0f, -1.0f};
    const auto s32 = writeThroughConverter(*integerFormat(32, 0, 1), values);
    std::int32_t words[2];
    std::memcpy(words, s32.data(), sizeof words);
    EXPECT_EQ(words[0], std::numeric_limits<std::int32_t>::max());
    EXPECT_EQ(words[1], std::numeric_limits<std::int32_t>::min());
    const auto s24 = writeThroughConverter(*integerFormat(24, 0, 1), values);
    EXPECT_EQ(s24, (std::vector<std::uint8_t>{0xFF, 0xFF, 0x7F, 0x00, 0x00, 0x80}));
    const auto u8 =
        writeThroughConverter(*fileFormat(kAudioFormatLinearPCM, 0, 8, 1), {1.0f, -1.0f, 0.0f});
    EXPECT_EQ(u8, (std::vector<std::uint8_t>{255, 0, 128}));
}

TEST(Part_1_4, IntegersNarrowerThanTheirContainersAlignHighOrLow) {
    // 12 bits in 16-bit containers, as a caller sets them (Part 1.3, Algorithm 1).
    for (const bool high : {true, false}) {
        const auto format = integerFormat(16, 0, 1);
        auto& record = *format->basicDescription();
        record.mBitsPerChannel = 12;
        record.mFormatFlags =
            kAudioFormatFlagIsSignedInteger | (high ? kAudioFormatFlagIsAlignedHigh : 0);
        const std::vector<std::int16_t> containers =
            high ? std::vector<std::int16_t>{0x7FF0, -0x8000, 0x0010, 0x7FFF}
                 : std::vector<std::int16_t>{0x07FF, -0x0800, 0x0001, 0x0FFF};
        const auto values = readThroughConverter(*format, bytesOf(containers, false));
        EXPECT_EQ(values, (std::vector<float>{2047.0f / 2048, -1.0f, 1.0f / 2048,
                                              high ? 2047.0f / 2048 : -1.0f / 2048}));
        const auto written =
            writeThroughConverter(*format, {2047.0f / 2048, -1.0f, 1.0f / 2048, 0.99999f});
        std::vector<std::int16_t> back(4);
        std::memcpy(back.data(), written.data(), written.size());
        EXPECT_EQ(back, high ? (std::vector<std::int16_t>{0x7FF0, -0x8000, 0x0010, 0x7FF0})
                             : (std::vector<std::int16_t>{0x07FF, -0x0800, 0x0001, 0x07FF}));
    }
}

TEST(Part_1_4, UnsignedIntegersOfEveryWidthAreOffsetByHalfTheirRange) {
    const auto format = fileFormat(kAudioFormatLinearPCM, kAudioFormatFlagIsPacked, 16, 1);
    const std::vector<std::uint16_t> containers{0x8000, 0x0000, 0xFFFF};
    const auto values = readThroughConverter(*format, bytesOf(containers, false));
    EXPECT_EQ(values, (std::vector<float>{0.0f, -1.0f, 32767.0f / 32768}));
    const auto sox16 =
        floatsOf(sox(bytesOf(containers, false), "-e unsigned-integer -b 16 -L", soxFloat, 1));
    EXPECT_EQ(values, sox16);
}

// ---- Oracles: sox and libsndfile -------------------------------------------

TEST_P(Part_1_4_Oracle, BytesReadAsFloatEqualWhatSoxMakesOfThem) {
    const auto bytes = fileBytes();
    const auto ours = readThroughConverter(*format(), bytes);
    const auto theirs = floatsOf(sox(bytes, GetParam().sox, soxFloat, channels));
    // sox makes 32-bit floats from its 32-bit samples rounded to 25 bits first
    // (SOX_SAMPLE_TO_FLOAT_32BIT), so against sox a step is at least 2^-24.
    const double step = GetParam().step == 0 ? 0 : std::max(GetParam().step, 0x1p-24);
    expectWithin(ours, theirs, step, "sox");
}

TEST_P(Part_1_4_Oracle, BytesReadAsFloatEqualWhatLibsndfileMakesOfThem) {
    const auto bytes = fileBytes();
    const auto ours = readThroughConverter(*format(), bytes);
    const auto theirs = libsndfileFloats(bytes, GetParam().libsndfile, channels, frames);
    expectWithin(ours, theirs, GetParam().step, "libsndfile");
}

TEST_P(Part_1_4_Oracle, FloatsWrittenHereReadBackThroughSoxToTheSameValues) {
    const OracleCase& c = GetParam();
    const auto values =
        c.isFloat ? gridSignal(frames * channels, 21) : clippingSignal(frames * channels, 21);
    const auto bytes = writeThroughConverter(*format(), values);
    const auto ours = readThroughConverter(*format(), bytes);
    const auto theirs = floatsOf(sox(bytes, c.sox, soxFloat, channels));
    expectWithin(theirs, ours, c.step, "sox reading back");
    if (c.format == kAudioFormatLinearPCM) {
        // Each value is the source rounded to the nearest step, after clipping
        // to the integers' range, which ends one step below 1.0.
        std::vector<float> clipped(values);
        for (float& value : clipped) {
            value = c.isFloat ? value : std::clamp(value, -1.0f, float(1.0 - c.step));
        }
        expectWithin(ours, clipped, c.step / 2, "rounding");
    }
}

TEST_P(Part_1_4_Oracle, FloatsWrittenHereAreWithinOneStepOfWhatSoxWrites) {
    const OracleCase& c = GetParam();
    const auto values = c.format == kAudioFormatLinearPCM ? gridSignal(frames * channels, 31)
                                                          : codeGridSignal(frames * channels, 31);
    const auto ours = readThroughConverter(*format(), writeThroughConverter(*format(), values));
    const auto soxBytes = sox(bytesOf(values, false), soxFloat, c.sox, channels);
    const auto theirs = readThroughConverter(*format(), soxBytes);
    expectWithin(ours, theirs, c.step, "sox writing");
}

INSTANTIATE_TEST_SUITE_P(Part_1_4, Part_1_4_Oracle, testing::ValuesIn(oracleCases),
                         [](const testing::TestParamInfo<OracleCase>& info) {
                             return std::string(info.param.name);
                         });

TEST(Part_1_4, EveryMuLawAndALawCodeDecodesAsSoxDecodesIt) {
    std::vector<std::uint8_t> codes(256);
    for (int i = 0; i < 256; ++i) {
        codes[i] = std::uint8_t(i);
    }
    for (const bool muLaw : {true, false}) {
        const auto format = fileFormat(muLaw ? kAudioFormatULaw : kAudioFormatALaw, 0, 8, 1);
        const auto ours = readThroughConverter(*format, codes);
        const auto theirs =
            floatsOf(sox(codes, muLaw ? "-e u-law -b 8" : "-e a-law -b 8", soxFloat, 1));
        EXPECT_EQ(ours, theirs) << (muLaw ? "mu-law" : "A-law");
        for (int i = 0; i < 256; ++i) {
            const int linear =
                muLaw ? KROMuLawToLinear(std::uint8_t(i)) : KROALawToLinear(std::uint8_t(i));
            EXPECT_EQ(ours[i], float(linear) / 32768);
        }
    }
}

// sox rounds to 14 (mu-law) or 13 (A-law) bits too, but exact ties up; at a
// tie this path rounds to even, and the code is the standard algorithm's.
TEST(Part_1_4, EverySixteenBitValueEncodesToTheMuLawAndALawCodesOfSox) {
    std::vector<float> values(65536);
    for (int i = 0; i < 65536; ++i) {
        values[i] = float(i - 32768) / 32768;
    }
    for (const bool muLaw : {true, false}) {
        const int unit = muLaw ? 4 : 8;
        const auto format = fileFormat(muLaw ? kAudioFormatULaw : kAudioFormatALaw, 0, 8, 1);
        const auto ours = writeThroughConverter(*format, values);
        const auto theirs =
            sox(bytesOf(values, false), soxFloat, muLaw ? "-e u-law -b 8" : "-e a-law -b 8", 1);
        ASSERT_EQ(ours.size(), theirs.size());
        std::size_t differences = 0;
        for (int i = 0; i < 65536; ++i) {
            const int linear = i - 32768;
            const bool tie = ((linear % unit) + unit) % unit == unit / 2;
            if (!tie) {
                differences += ours[i] != theirs[i];
                continue;
            }
            const int below = linear - unit / 2;
            const int even = (below / unit) % 2 == 0 ? below : below + unit;
            const int rounded = std::min(even, 32768 - unit);
            EXPECT_EQ(ours[i], muLaw ? KROLinearToMuLaw(std::int16_t(rounded))
                                     : KROLinearToALaw(std::int16_t(rounded)));
        }
        EXPECT_EQ(differences, 0u) << (muLaw ? "mu-law" : "A-law");
    }
}

// ---- The operations of Algorithms 1 to 6 -------------------------------------

TEST(Part_1_4, ConvertInputToAudioBufferTakesTheFrameCountFromTheDestination) {
    const auto converter = makeConverter(*integerFormat(16), *workingFormat());
    const std::vector<std::int16_t> samples{16384, -16384, 8192, -8192, 4096, -4096};
    const auto list = audioList(2, 8);
    ASSERT_TRUE(list->setFrames(2));
    KROErrorPtr error;
    ASSERT_TRUE(converter->convertInput(samples.data(), 12, *list, &error));
    EXPECT_EQ(list->frames(), 2u);
    EXPECT_EQ(list->valueAtFrame(0, 0), 0.5f);
    EXPECT_EQ(list->valueAtFrame(0, 1), -0.5f);
    EXPECT_EQ(list->valueAtFrame(1, 0), 0.25f);
    EXPECT_EQ(list->valueAtFrame(2, 0), 0.0f);
}

TEST(Part_1_4, ConvertInputWithTooFewBytesForTheDestinationFailsWithInsz) {
    const auto converter = makeConverter(*integerFormat(16), *workingFormat());
    const std::vector<std::uint8_t> bytes(4 * 10 - 1);
    const auto list = audioList(2, 10);
    KROErrorPtr error;
    EXPECT_FALSE(converter->convertInput(bytes.data(), bytes.size(), *list, &error));
    expectConverterError(error, code("insz"));
}

TEST(Part_1_4, ConvertInputToADestinationOfAnotherChannelCountFailsWithParamError) {
    const auto converter = makeConverter(*integerFormat(16), *workingFormat());
    const std::vector<std::uint8_t> bytes(4 * 10);
    const auto list = audioList(3, 10);
    KROErrorPtr error;
    EXPECT_FALSE(converter->convertInput(bytes.data(), bytes.size(), *list, &error));
    expectConverterError(error, kAudio_ParamError);
    EXPECT_EQ(list->maximum(), 0.0f);
}

TEST(Part_1_4, ConvertBufferToAudioBufferReadsTheSourcesOwnList) {
    // Part 6.5: a raw non-interleaved asset to the working format.
    const auto source = integerFormat(16, kAudioFormatFlagIsNonInterleaved);
    ASSERT_EQ(source->basicDescription()->mBytesPerFrame, 2u);
    const auto converter = makeConverter(*source, *workingFormat());
    const auto raw = KROBufferList::bufferListWithNumberOfBuffers(2, 8);
    const std::int16_t left[] = {16384, 0, -32768, 1};
    const std::int16_t right[] = {-16384, 8192, 32767, 0};
    std::memcpy(raw->bufferAtIndex(0), left, 8);
    std::memcpy(raw->bufferAtIndex(1), right, 8);
    const auto list = audioList(2, 4);
    KROErrorPtr error;
    ASSERT_TRUE(converter->convertBufferToAudioBuffer(*raw, *list, &error));
    EXPECT_EQ(list->valueAtFrame(0, 0), 0.5f);
    EXPECT_EQ(list->valueAtFrame(2, 0), -1.0f);
    EXPECT_EQ(list->valueAtFrame(1, 1), 0.25f);
    EXPECT_EQ(list->valueAtFrame(2, 1), 32767.0f / 32768);
    const auto three = KROBufferList::bufferListWithNumberOfBuffers(3, 8);
    EXPECT_FALSE(converter->convertBufferToAudioBuffer(*three, *list, &error));
    expectConverterError(error, kAudio_ParamError);
}

TEST(Part_1_4, ConvertBufferToBufferConvertsEachBufferWithTheListsLengths) {
    const auto output = workingFormat();
    output->setFlags(kAudioFormatFlagIsSignedInteger | kAudioFormatFlagIsNonInterleaved);
    output->setBitDepth(32);
    const auto converter = makeConverter(*workingFormat(), *output);
    const auto source = audioList(2, 3);
    source->setValue(0.5f, 0, 0);
    source->setValue(-1.0f, 2, 1);
    const auto destination = audioList(2, 3);
    KROErrorPtr error;
    ASSERT_TRUE(converter->convertBuffer(*source, *destination, &error));
    std::int32_t words[3];
    std::memcpy(words, destination->bufferAtIndex(0), sizeof words);
    EXPECT_EQ(words[0], 1 << 30);
    std::memcpy(words, destination->bufferAtIndex(1), sizeof words);
    EXPECT_EQ(words[2], std::numeric_limits<std::int32_t>::min());
}

TEST(Part_1_4, ConvertBufferInPlaceConvertsTheListIntoItself) {
    const auto integer = workingFormat();
    integer->setFlags(kAudioFormatFlagIsSignedInteger | kAudioFormatFlagIsNonInterleaved);
    const auto toIntegers = makeConverter(*workingFormat(), *integer);
    const auto toFloats = makeConverter(*integer, *workingFormat());
    const auto list = audioList(2, 1000);
    for (std::uint64_t frame = 0; frame < 1000; ++frame) {
        list->setValue(float(frame) / 1000, frame, 0);
        list->setValue(-float(frame) / 1000, frame, 1);
    }
    ASSERT_TRUE(toIntegers->convertBufferInPlace(*list));
    std::int32_t word;
    std::memcpy(&word, static_cast<const std::uint8_t*>(list->bufferAtIndex(0)) + 4 * 500, 4);
    EXPECT_EQ(word, 1 << 30);
    ASSERT_TRUE(toFloats->convertBufferInPlace(*list));
    for (std::uint64_t frame = 0; frame < 1000; frame += 37) {
        EXPECT_NEAR(list->valueAtFrame(frame, 0), float(frame) / 1000, 1e-7);
        EXPECT_NEAR(list->valueAtFrame(frame, 1), -float(frame) / 1000, 1e-7);
    }
}

TEST(Part_1_4, ConvertInPlaceWorksOnFloatsOfTheSameWidth) {
    const auto swapped = workingFormat(1);
    swapped->setFlags(kAudioFormatFlagIsFloat | kAudioFormatFlagIsBigEndian |
                      kAudioFormatFlagIsNonInterleaved);
    const auto converter = makeConverter(*workingFormat(1), *swapped);
    std::vector<float> data{1.0f, -0.5f, 0.25f};
    ASSERT_TRUE(converter->convertInPlace(data.data(), data.size()));
    std::uint32_t word;
    std::memcpy(&word, &data[0], 4);
    EXPECT_EQ(word, __builtin_bswap32(std::bit_cast<std::uint32_t>(1.0f)));
    std::vector<float> back(3);
    ASSERT_TRUE(makeConverter(*swapped, *workingFormat(1))
                    ->convertInputInFrames(data.data(), 3, back.data(), 3));
    EXPECT_EQ(back, (std::vector<float>{1.0f, -0.5f, 0.25f}));
}

TEST(Part_1_4, ConvertInputInBytesShrinksInPlaceAndRefusesToGrowInPlace) {
    const auto converter = makeConverter(*integerFormat(32), *integerFormat(16));
    std::vector<std::int32_t> words{1 << 30, -(1 << 30), 1 << 29, 0};
    ASSERT_TRUE(converter->convertInputInBytes(words.data(), 16, words.data(), 16));
    std::int16_t halves[4];
    std::memcpy(halves, words.data(), 8);
    EXPECT_EQ(halves[0], 1 << 14);
    EXPECT_EQ(halves[1], -(1 << 14));
    EXPECT_EQ(halves[2], 1 << 13);
    const auto grow = makeConverter(*integerFormat(16), *integerFormat(32));
    std::vector<std::int32_t> room(8);
    KROErrorPtr error;
    EXPECT_FALSE(grow->convertInputInBytes(room.data(), 8, room.data() + 1, 16, &error));
    expectConverterError(error, kAudio_ParamError);
}

TEST(Part_1_4, LengthsThatAreNotWholeFramesFailWithInsz) {
    const auto converter = makeConverter(*integerFormat(24), *integerFormat(16));
    const std::vector<std::uint8_t> input(6 * 4 + 1);
    std::vector<std::uint8_t> output(4 * 4);
    KROErrorPtr error;
    EXPECT_FALSE(converter->convertInputInBytes(input.data(), input.size(), output.data(),
                                                output.size(), &error));
    expectConverterError(error, code("insz"));
    EXPECT_TRUE(std::all_of(output.begin(), output.end(), [](auto b) { return b == 0; }));
    EXPECT_TRUE(converter->convertInputInBytes(input.data(), 24, output.data(), output.size()));
}

TEST(Part_1_4, AnOutputThatCannotHoldTheFramesFailsWithOtsz) {
    const auto converter = makeConverter(*integerFormat(16), *integerFormat(24));
    const std::vector<std::uint8_t> input(4 * 4, 0x11);
    std::vector<std::uint8_t> output(6 * 4 - 1);
    KROErrorPtr error;
    EXPECT_FALSE(converter->convertInputInBytes(input.data(), input.size(), output.data(),
                                                output.size(), &error));
    expectConverterError(error, code("otsz"));
    EXPECT_TRUE(std::all_of(output.begin(), output.end(), [](auto b) { return b == 0; }));
}

TEST(Part_1_4, ConvertInputInBytesBetweenBuffersOfDifferentLayoutsFailsWithOp) {
    const auto converter = makeConverter(*integerFormat(16), *workingFormat());
    const std::vector<std::uint8_t> input(16);
    std::vector<float> output(8);
    KROErrorPtr error;
    EXPECT_FALSE(converter->convertInputInBytes(input.data(), input.size(), output.data(),
                                                output.size() * 4, &error));
    expectConverterError(error, code("op??"));
}

TEST(Part_1_4, ConvertAudioBufferWritesTheFileFormatAndReturnsThePackets) {
    const auto converter = makeConverter(*workingFormat(), *integerFormat(16, big));
    const auto source = audioList(2, 3);
    source->setValue(0.5f, 0, 0);
    source->setValue(-0.5f, 0, 1);
    source->setValue(1.0f, 2, 1);
    const auto destination = KROBufferList::bufferListWithNumberOfBuffers(1, 12);
    KROErrorPtr error;
    EXPECT_EQ(converter->convertAudioBuffer(*source, *destination, &error), 3u);
    const auto* bytes = static_cast<const std::uint8_t*>(destination->bufferAtIndex(0));
    EXPECT_EQ(std::vector<std::uint8_t>(bytes, bytes + 12),
              (std::vector<std::uint8_t>{0x40, 0x00, 0xC0, 0x00, 0, 0, 0, 0, 0, 0, 0x7F, 0xFF}));
}

TEST(Part_1_4, ConvertAudioBufferFromASourceOfAnotherChannelCountFailsWithParamError) {
    const auto converter = makeConverter(*workingFormat(), *integerFormat(16));
    const auto source = audioList(3, 4);
    const auto destination = KROBufferList::bufferListWithNumberOfBuffers(1, 16);
    KROErrorPtr error;
    EXPECT_EQ(converter->convertAudioBuffer(*source, *destination, &error), 0u);
    expectConverterError(error, kAudio_ParamError);
}

namespace {

// The caller's pull function of Algorithm 6: hands out an interleaved
// 16-bit stream in pieces of at most `piece` packets, then none.
struct Feed {
    const std::int16_t* samples;
    std::uint32_t frames;
    std::uint32_t piece;
    std::uint32_t position = 0;
    std::uint32_t calls = 0;
    OSStatus failure = noErr;

    static OSStatus pull(AudioConverterRef, std::uint32_t* packets, AudioBufferList* data,
                         AudioStreamPacketDescription**, void* self) {
        auto& feed = *static_cast<Feed*>(self);
        ++feed.calls;
        if (feed.failure != noErr) {
            *packets = 0;
            return feed.failure;
        }
        const std::uint32_t count = std::min({*packets, feed.piece, feed.frames - feed.position});
        KROAudioBufferAt(*data, 0) =
            AudioBuffer{2, count * 4, const_cast<std::int16_t*>(feed.samples + 2 * feed.position)};
        feed.position += count;
        *packets = count;
        return noErr;
    }
};

} // namespace

TEST(Part_1_4, ConvertToAudioBufferUsingCallbackPullsUntilTheDestinationIsFull) {
    std::vector<std::int16_t> samples(2 * 1000);
    for (std::size_t i = 0; i < samples.size(); ++i) {
        samples[i] = std::int16_t(i * 31);
    }
    Feed feed{samples.data(), 1000, 300};
    const auto converter = makeConverter(*integerFormat(16), *workingFormat());
    converter->setCallback(Feed::pull, &feed);
    const auto list = audioList(2, 512);
    KROErrorPtr error;
    EXPECT_EQ(converter->convertToAudioBufferUsingCallback(*list, &error), 512u);
    EXPECT_EQ(feed.calls, 2u);
    EXPECT_EQ(list->valueAtFrame(511, 1), float(samples[2 * 511 + 1]) / 32768);
    EXPECT_EQ(list->valueAtFrame(300, 0), float(samples[600]) / 32768);
}

TEST(Part_1_4, ACountBelowTheRequestMeansTheEndOfTheData) {
    std::vector<std::int16_t> samples(2 * 750, 4096);
    Feed feed{samples.data(), 750, 256};
    const auto converter = makeConverter(*integerFormat(16), *workingFormat());
    converter->setCallback(Feed::pull, &feed);
    const auto list = audioList(2, 1000);
    EXPECT_EQ(converter->convertToAudioBufferUsingCallback(*list), 750u);
    EXPECT_EQ(list->frames(), 750u);
    EXPECT_EQ(list->valueAtFrame(749, 1), 0.125f);
    EXPECT_TRUE(list->setFrames(1000));
    EXPECT_EQ(converter->convertToAudioBufferUsingCallback(*list), 0u);
}

TEST(Part_1_4, AFailingCallbackGives0AndItsStatus) {
    std::vector<std::int16_t> samples(2 * 10);
    Feed feed{samples.data(), 10, 10};
    feed.failure = static_cast<OSStatus>(KROFourCharCode("what"));
    const auto converter = makeConverter(*integerFormat(16), *workingFormat());
    converter->setCallback(Feed::pull, &feed);
    const auto list = audioList(2, 10);
    KROErrorPtr error;
    EXPECT_EQ(converter->convertToAudioBufferUsingCallback(*list, &error), 0u);
    expectConverterError(error, code("what"));
    converter->setCallback(nullptr, nullptr);
    EXPECT_EQ(converter->convertToAudioBufferUsingCallback(*list, &error), 0u);
    expectConverterError(error, kAudio_ParamError);
}

TEST(Part_1_4, ACallbackThatGivesTooFewBytesFailsWithInsz) {
    std::vector<std::int16_t> samples(2 * 10);
    struct Short {
        static OSStatus pull(AudioConverterRef, std::uint32_t* packets, AudioBufferList* data,
                             AudioStreamPacketDescription**, void* self) {
            KROAudioBufferAt(*data, 0) = AudioBuffer{2, 4 * *packets - 2, self};
            return noErr;
        }
    };
    const auto converter = makeConverter(*integerFormat(16), *workingFormat());
    converter->setCallback(Short::pull, samples.data());
    const auto list = audioList(2, 10);
    KROErrorPtr error;
    EXPECT_EQ(converter->convertToAudioBufferUsingCallback(*list, &error), 0u);
    expectConverterError(error, code("insz"));
}

// ---- Layouts ---------------------------------------------------------------

TEST(Part_1_4, ManyChannelsInterleaveAndDeinterleave) {
    for (const std::uint32_t channels : {1u, 3u, 6u}) {
        const auto format = integerFormat(24, 0, channels);
        const auto bytes = randomBytes(3 * channels * 333, channels);
        const auto values = readThroughConverter(*format, bytes);
        const auto theirs = floatsOf(sox(bytes, "-e signed-integer -b 24 -L", soxFloat, channels));
        expectWithin(values, theirs, 0x1p-23, "sox");
        EXPECT_EQ(writeThroughConverter(*format, values), bytes);
    }
}

TEST(Part_1_4, IntegersConvertToIntegersExactlyThroughTheGeneralPath) {
    const auto bytes = randomBytes(4 * 2 * 5000, 5);
    const auto s32 = integerFormat(32);
    const auto s32big = integerFormat(32, big);
    const auto converter = makeConverter(*s32, *s32big);
    std::vector<std::uint8_t> swapped(bytes.size());
    ASSERT_TRUE(
        converter->convertInputInBytes(bytes.data(), bytes.size(), swapped.data(), swapped.size()));
    for (std::size_t i = 0; i < bytes.size(); i += 4) {
        ASSERT_TRUE(std::equal(bytes.begin() + i, bytes.begin() + i + 4,
                               swapped.rbegin() + std::ptrdiff_t(swapped.size() - i - 4)));
    }
    const auto f64 = fileFormat(kAudioFormatLinearPCM, floatPacked, 64);
    std::vector<std::uint8_t> wide(bytes.size() * 2);
    ASSERT_TRUE(makeConverter(*s32, *f64)
                    ->convertInputInBytes(bytes.data(), bytes.size(), wide.data(), wide.size()));
    std::vector<std::uint8_t> back(bytes.size());
    ASSERT_TRUE(makeConverter(*f64, *s32)
                    ->convertInputInBytes(wide.data(), wide.size(), back.data(), back.size()));
    EXPECT_EQ(back, bytes);
}

// The stereo paths of the working format (one pass for both channels, with
// the vector rounding) against the general path through 64-bit floats, at a
// frame count that leaves a tail, with ties, NaN, infinities and overloads.
TEST(Part_1_4, TheStereoPathsGiveTheValuesOfTheGeneralPath) {
    constexpr std::size_t frames = 1001;
    std::vector<float> values = clippingSignal(2 * frames, 41);
    const float specials[] = {0.5f / 32768,
                              1.5f / 32768,
                              -2.5f / 32768,
                              0.5f / 8388608,
                              -1.5f / 8388608,
                              std::numeric_limits<float>::quiet_NaN(),
                              std::numeric_limits<float>::infinity(),
                              -std::numeric_limits<float>::infinity(),
                              2.0f,
                              -2.0f};
    for (std::size_t i = 0; i < std::size(specials); ++i) {
        values[100 + 7 * i] = specials[i];
        values[2 * frames - 1 - i] = specials[i];
    }
    const auto f64 = fileFormat(kAudioFormatLinearPCM, floatPacked, 64);
    const auto wide = writeThroughConverter(*f64, values);
    for (const std::uint32_t bits : {8u, 16u, 24u, 32u}) {
        const auto format = integerFormat(bits, bits == 24 ? big : 0);
        const auto direct = writeThroughConverter(*format, values);
        std::vector<std::uint8_t> general(direct.size());
        ASSERT_TRUE(
            makeConverter(*f64, *format)
                ->convertInputInBytes(wide.data(), wide.size(), general.data(), general.size()));
        EXPECT_EQ(direct, general) << bits;
        const auto read = readThroughConverter(*format, direct);
        std::vector<std::uint8_t> readWide(wide.size());
        ASSERT_TRUE(makeConverter(*format, *f64)
                        ->convertInputInBytes(direct.data(), direct.size(), readWide.data(),
                                              readWide.size()));
        std::vector<double> expected(2 * frames);
        std::memcpy(expected.data(), readWide.data(), readWide.size());
        EXPECT_EQ(read, std::vector<float>(expected.begin(), expected.end())) << bits;
    }
}

// ---- Real time: no allocation on any per-call path ---------------------------

TEST(Part_1_4, TheConversionsAllocateNothing) {
    constexpr std::uint32_t frames = 4096;
    const auto bytes = randomBytes(6 * frames, 9);
    const auto list = audioList(2, frames);
    const auto read = makeConverter(*integerFormat(24), *workingFormat());
    const auto write = makeConverter(*workingFormat(), *integerFormat(24, big));
    const auto general = makeConverter(*integerFormat(24), *integerFormat(16, big));
    const auto asset = makeConverter(*workingFormat(), *workingFormat());
    const auto output = KROBufferList::bufferListWithNumberOfBuffers(1, 6 * frames);
    std::vector<std::uint8_t> shorts(4 * frames);
    std::vector<std::int16_t> samples(2 * frames, 77);
    Feed feed{samples.data(), frames, 1000};
    const auto pull = makeConverter(*integerFormat(16), *workingFormat());
    pull->setCallback(Feed::pull, &feed);
    const auto copy = audioList(2, frames);
    KROErrorPtr error;
    for (int pass = 0; pass < 3; ++pass) {
        feed.position = 0;
        KRO_EXPECT_NO_ALLOCATION(read->convertInput(bytes.data(), bytes.size(), *list, &error));
        KRO_EXPECT_NO_ALLOCATION(write->convertAudioBuffer(*list, *output, &error));
        KRO_EXPECT_NO_ALLOCATION(
            general->convertInputInBytes(bytes.data(), bytes.size(), shorts.data(), shorts.size()));
        KRO_EXPECT_NO_ALLOCATION(pull->convertToAudioBufferUsingCallback(*list, &error));
        KRO_EXPECT_NO_ALLOCATION(asset->convertBufferToAudioBuffer(*list, *copy, &error));
        KRO_EXPECT_NO_ALLOCATION(asset->convertBuffer(*list, *copy, &error));
        KRO_EXPECT_NO_ALLOCATION(asset->convertBufferInPlace(*copy));
        // A failure without an out-argument allocates nothing either.
        KRO_EXPECT_NO_ALLOCATION(read->convertInput(bytes.data(), 5, *list));
    }
    EXPECT_EQ(error, nullptr);
}
