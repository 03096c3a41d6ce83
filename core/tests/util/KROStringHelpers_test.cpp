// Part 8.6: small services. The edge cases of the Part, the algorithms one by
// one, and checks against programs nobody here wrote: Python's zlib, binascii,
// struct, xml.etree and email packages, coreutils md5sum, sha1sum and base64.
#include <gtest/gtest.h>

#include <array>
#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <limits>
#include <random>
#include <sstream>
#include <string>
#include <vector>

#include "KROCRC.h"
#include "KRODeque.h"
#include "KROError.h"
#include "KROExtended80.h"
#include "KROLocalizedString.h"
#include "KROLog.h"
#include "KROMultipartRequest.h"
#include "KROPropertyList.h"
#include "KROStringHelpers.h"
#include "KROTestCommand.h"
#include "KROXMLParser.h"

namespace {

constexpr const char* kPython = "/usr/bin/python3";

class TempDir {
public:
    TempDir() {
        std::string pattern =
            (std::filesystem::temp_directory_path() / "kro_part_8_6_XXXXXX").string();
        if (mkdtemp(pattern.data())) {
            path_ = pattern;
        }
    }
    ~TempDir() {
        std::error_code ignored;
        std::filesystem::remove_all(path_, ignored);
    }
    TempDir(const TempDir&) = delete;
    TempDir& operator=(const TempDir&) = delete;

    std::filesystem::path operator/(const std::string& name) const { return path_ / name; }
    bool valid() const { return !path_.empty(); }

private:
    std::filesystem::path path_;
};

std::string quoted(const std::filesystem::path& path) {
    return "'" + path.string() + "'";
}

void writeFile(const std::filesystem::path& path, const void* bytes, std::size_t length) {
    std::ofstream file(path, std::ios::binary);
    file.write(static_cast<const char*>(bytes), static_cast<std::streamsize>(length));
}

void writeFile(const std::filesystem::path& path, const std::string& text) {
    writeFile(path, text.data(), text.size());
}

void writeFile(const std::filesystem::path& path, const KROData& data) {
    writeFile(path, data.data(), data.size());
}

KROData bytesOf(std::string_view text) {
    return KROData(text.begin(), text.end());
}

KROData randomData(std::mt19937& random, std::size_t length) {
    std::uniform_int_distribution<int> byte(0, 255);
    KROData data(length);
    for (auto& value : data) {
        value = static_cast<std::uint8_t>(byte(random));
    }
    return data;
}

std::string hex(const KROData& data) {
    static constexpr char kDigits[] = "0123456789abcdef";
    std::string text;
    for (std::uint8_t byte : data) {
        text.push_back(kDigits[byte >> 4]);
        text.push_back(kDigits[byte & 0x0F]);
    }
    return text;
}

std::string hexFloat(double value) {
    char buffer[64];
    std::snprintf(buffer, sizeof buffer, "%a", value);
    return buffer;
}

std::vector<std::string> lines(const std::string& text) {
    std::vector<std::string> result;
    std::istringstream stream(text);
    for (std::string line; std::getline(stream, line);) {
        result.push_back(line);
    }
    return result;
}

// Collects the log lines written while it lives.
class LogCapture {
public:
    LogCapture() {
        KROSetLogSink([this](const std::string& line) { lines_.push_back(line); });
    }
    ~LogCapture() { KROSetLogSink({}); }
    LogCapture(const LogCapture&) = delete;
    LogCapture& operator=(const LogCapture&) = delete;

    const std::vector<std::string>& lines() const { return lines_; }

private:
    std::vector<std::string> lines_;
};

class Token : public KROObject {
public:
    explicit Token(int value) : value(value) {}
    int value;
};

std::shared_ptr<KROObject> token(int value) {
    return std::make_shared<Token>(value);
}

int valueOf(const std::shared_ptr<KROObject>& object) {
    auto* t = dynamic_cast<Token*>(object.get());
    return t ? t->value : -1;
}

KROData xmlData(std::string_view text) {
    return bytesOf(text);
}

void appendJSONString(const std::string& text, std::string& out) {
    out.push_back('"');
    for (char c : text) {
        if (c == '"' || c == '\\') {
            out.push_back('\\');
            out.push_back(c);
        } else if (static_cast<unsigned char>(c) < 0x20) {
            char escape[8];
            std::snprintf(escape, sizeof escape, "\\u%04x", static_cast<unsigned char>(c));
            out.append(escape);
        } else {
            out.push_back(c);
        }
    }
    out.push_back('"');
}

// The tree of strings, arrays and dictionaries as JSON, keys in their order.
void appendJSON(const KROPropertyList& value, std::string& out) {
    if (const auto* text = value.stringValue()) {
        appendJSONString(*text, out);
    } else if (const auto* array = value.arrayValue()) {
        out.push_back('[');
        for (std::size_t i = 0; i < array->size(); ++i) {
            out.append(i ? ", " : "");
            appendJSON((*array)[i], out);
        }
        out.push_back(']');
    } else if (const auto* dictionary = value.dictionaryValue()) {
        out.push_back('{');
        for (std::size_t i = 0; i < dictionary->size(); ++i) {
            out.append(i ? ", " : "");
            appendJSONString((*dictionary)[i].first, out);
            out.append(": ");
            appendJSON((*dictionary)[i].second, out);
        }
        out.push_back('}');
    } else {
        out.append("null");
    }
}

std::string json(const KROPropertyList& value) {
    std::string out;
    appendJSON(value, out);
    return out;
}

// The parser of Part 3.8's second pass.
std::shared_ptr<KROXMLParser> iXMLParser() {
    auto parser = KROXMLParser::parser();
    parser->setArrayElements({"SYNC_POINT_LIST", "TRACK_LIST"});
    parser->setIgnoredElements({"BWFXML", "TRACK_COUNT", "SYNC_POINT_COUNT"});
    parser->setIgnoredContainers({"STEINBERG"});
    parser->setMakeKeysLowercase(true);
    parser->setDictionaryElements(
        {"SPEED", "TRACK", "HISTORY", "FILE_SET", "SYNC_POINT", "BEXT", "USER"});
    return parser;
}

} // namespace

// ---------------------------------------------------------------------------
// Edge cases worth testing
// ---------------------------------------------------------------------------

TEST(Part_8_6_SmallServices, The32BitDefaultsGive0xCBF43926ForTheNineBytesOfTheText123456789) {
    EXPECT_EQ(KROCRC::crc()->crcForString("123456789"), 0xCBF43926u);
    auto crc = std::make_shared<KROCRC>();
    crc->init();
    const KROData digits = bytesOf("123456789");
    EXPECT_EQ(crc->crcForData(digits), 0xCBF43926u);
    EXPECT_EQ(crc->crcForBuffer(digits.data(), digits.size()), 0xCBF43926u);
}

TEST(Part_8_6_SmallServices, SetOrderWith0Or33ChangesNothing) {
    auto crc = KROCRC::crc();
    crc->crcForString("warm");
    const KROCRC::Table* table = crc->table();
    ASSERT_NE(table, nullptr);
    for (std::uint32_t order : {0u, 33u, 64u, 0xFFFFFFFFu}) {
        crc->setOrder(order);
        EXPECT_EQ(crc->order(), 32u);
        EXPECT_EQ(crc->mask(), 0xFFFFFFFFu);
        EXPECT_EQ(crc->highBit(), 0x80000000u);
        EXPECT_EQ(crc->table(), table);
    }
    EXPECT_EQ(crc->crcForString("123456789"), 0xCBF43926u);
}

TEST(Part_8_6_SmallServices, SetPolynomialWithBitsAboveMaskChangesNothingAndKeepsTheTable) {
    auto crc = KROCRC::crcForCCITT16();
    const std::uint32_t before = crc->crcForString("123456789");
    const KROCRC::Table* table = crc->table();
    ASSERT_NE(table, nullptr);
    crc->setPolynomial(0x11021);
    crc->setPolynomial(0x80000000);
    EXPECT_EQ(crc->polynomial(), 0x1021u);
    EXPECT_EQ(crc->table(), table);
    EXPECT_EQ(crc->crcForString("123456789"), before);
}

TEST(Part_8_6_SmallServices,
     AnAIFFRateOf44100WrittenByKROGetExtended80ForDoubleReadsBackAsExactly44100) {
    std::uint8_t bytes[10];
    KROGetExtended80ForDouble(44100.0, bytes);
    const std::uint8_t expected[10] = {0x40, 0x0E, 0xAC, 0x44, 0, 0, 0, 0, 0, 0};
    EXPECT_EQ(std::memcmp(bytes, expected, 10), 0);
    EXPECT_EQ(KRODoubleFromExtended80(bytes), 44100.0);
}

TEST(Part_8_6_SmallServices,
     KRODoubleFromExtended80OfAnExponentOf32767WithAnyMantissaGivesInfinityNeverANaN) {
    std::mt19937 random(32767);
    std::vector<KROData> mantissas = {KROData(8, 0x00), KROData(8, 0xFF),
                                      KROData{0x80, 0, 0, 0, 0, 0, 0, 0},
                                      KROData{0xC0, 0, 0, 0, 0, 0, 0, 1}};
    for (int i = 0; i < 100; ++i) {
        mantissas.push_back(randomData(random, 8));
    }
    for (const KROData& mantissa : mantissas) {
        std::uint8_t bytes[10] = {0x7F, 0xFF};
        std::memcpy(bytes + 2, mantissa.data(), 8);
        const double positive = KRODoubleFromExtended80(bytes);
        EXPECT_FALSE(std::isnan(positive));
        EXPECT_EQ(positive, std::numeric_limits<double>::infinity());
        bytes[0] = 0xFF;
        EXPECT_EQ(KRODoubleFromExtended80(bytes), -std::numeric_limits<double>::infinity());
    }
}

TEST(Part_8_6_SmallServices, PoppingPastTheLastElementReturnsNothingAndKeepsTheDequeUsable) {
    auto deque = std::make_shared<KRODeque>();
    ASSERT_TRUE(deque->init());
    EXPECT_EQ(deque->popFront(), nullptr);
    EXPECT_EQ(deque->popBack(), nullptr);
    deque->pushBack(token(1));
    deque->pushBack(token(2));
    EXPECT_EQ(valueOf(deque->popFront()), 1);
    EXPECT_EQ(valueOf(deque->popBack()), 2);
    for (int i = 0; i < 3; ++i) {
        EXPECT_EQ(deque->popFront(), nullptr);
        EXPECT_EQ(deque->popBack(), nullptr);
    }
    deque->pushFront(token(3));
    deque->pushBack(token(4));
    EXPECT_EQ(valueOf(deque->popFront()), 3);
    EXPECT_EQ(valueOf(deque->popFront()), 4);
    EXPECT_EQ(deque->popFront(), nullptr);
}

TEST(Part_8_6_SmallServices,
     WithTheElementNamesOfPart3_8AnUnclosedDocumentYieldsThePartialTreeAndAnError) {
    const std::string document =
        "<?xml version=\"1.0\" encoding=\"UTF-8\"?>\r"
        "<BWFXML>\r"
        "<IXML_VERSION>2.0</IXML_VERSION>\r"
        "<PROJECT>Feature</PROJECT>\r"
        "<SPEED><MASTER_SPEED>25/1</MASTER_SPEED>"
        "<TIMECODE_RATE>25/1</TIMECODE_RATE></SPEED>\r"
        "<TRACK_LIST><TRACK_COUNT>2</TRACK_COUNT>\r"
        "<TRACK><CHANNEL_INDEX>1</CHANNEL_INDEX><NAME>Boom</NAME></TRACK>\r"
        "<TRACK><CHANNEL_INDEX>2</CHANNEL_INDEX><NAME>Lav";
    auto parser = iXMLParser();
    KROErrorPtr error;
    auto root = parser->objectForData(xmlData(document), &error);
    ASSERT_NE(root, nullptr);
    EXPECT_EQ(json(*root), "{\"ixml_version\": \"2.0\", \"project\": \"Feature\", "
                           "\"speed\": {\"master_speed\": \"25/1\", \"timecode_rate\": \"25/1\"}, "
                           "\"track_list\": [{\"channel_index\": \"1\", \"name\": \"Boom\"}, "
                           "{\"channel_index\": \"2\"}]}");
    ASSERT_NE(error, nullptr);
    EXPECT_EQ(error->className(), "KROXMLParserError");
    EXPECT_EQ(error->domain(), "KROXMLParserErrorDomain");
    EXPECT_EQ(error->code(), 5);
    EXPECT_EQ(error->description(), "Reading the XML document failed because the XML document "
                                    "ends before all of its elements are closed.");
}

TEST(
    Part_8_6_SmallServices,
    StringWithFourCharCodeOfACodeWhoseLowestByteIs0YieldsFourBlanksAlsoWhenTheFirstThreeBytesAreLetters) {
    EXPECT_EQ(kro::stringWithFourCharCode(0x61626300), "    ");
    EXPECT_EQ(kro::stringWithFourCharCode(kro::fourCC("abc")), "    ");
    EXPECT_EQ(kro::stringWithFourCharCode(0), "    ");
    EXPECT_EQ(kro::stringWithFourCharCode(0x41424319), "    ");
    EXPECT_EQ(kro::stringWithFourCharCode(0x4142437F), "    ");
}

// ---------------------------------------------------------------------------
// CRC
// ---------------------------------------------------------------------------

TEST(Part_8_6_CRC, TheDefaultsOfInitAndInitForCCITT16) {
    auto crc = KROCRC::crc();
    EXPECT_EQ(crc->order(), 32u);
    EXPECT_EQ(crc->polynomial(), 0x04C11DB7u);
    EXPECT_EQ(crc->initialValue(), 0xFFFFFFFFu);
    EXPECT_EQ(crc->xorValue(), 0xFFFFFFFFu);
    EXPECT_TRUE(crc->reflectInput());
    EXPECT_TRUE(crc->reflectOutput());
    EXPECT_EQ(crc->table(), nullptr);

    auto ccitt = KROCRC::crcForCCITT16();
    EXPECT_EQ(ccitt->order(), 16u);
    EXPECT_EQ(ccitt->polynomial(), 0x1021u);
    EXPECT_EQ(ccitt->initialValue(), 0u);
    EXPECT_EQ(ccitt->xorValue(), 0xFFFFu);
    EXPECT_FALSE(ccitt->reflectInput());
    EXPECT_FALSE(ccitt->reflectOutput());
    EXPECT_EQ(ccitt->mask(), 0xFFFFu);
    EXPECT_EQ(ccitt->highBit(), 0x8000u);
    // The catalogued check value of this form (CRC-16/GSM).
    EXPECT_EQ(ccitt->crcForString("123456789"), 0xCE3Cu);
}

TEST(Part_8_6_CRC, SetOrderDerivesHighBitAndMaskAndDropsTheTable) {
    auto crc = KROCRC::crc();
    crc->crcForString("x");
    ASSERT_NE(crc->table(), nullptr);
    crc->setOrder(12);
    EXPECT_EQ(crc->order(), 12u);
    EXPECT_EQ(crc->highBit(), 0x800u);
    EXPECT_EQ(crc->mask(), 0xFFFu);
    EXPECT_EQ(crc->table(), nullptr);
    crc->setOrder(1);
    EXPECT_EQ(crc->highBit(), 1u);
    EXPECT_EQ(crc->mask(), 1u);
}

TEST(Part_8_6_CRC, ValuesWithBitsOutsideTheMaskAreIgnoredAndOnlySomeSettersDropTheTable) {
    auto crc = KROCRC::crcForCCITT16();
    crc->crcForString("x");
    const KROCRC::Table* table = crc->table();
    crc->setInitialValue(0x10000);
    crc->setXorValue(0x1FFFF);
    EXPECT_EQ(crc->initialValue(), 0u);
    EXPECT_EQ(crc->xorValue(), 0xFFFFu);
    crc->setInitialValue(0xFFFF);
    crc->setXorValue(0);
    EXPECT_EQ(crc->initialValue(), 0xFFFFu);
    EXPECT_EQ(crc->xorValue(), 0u);
    EXPECT_EQ(crc->table(), table);
    crc->setReflectInput(true);
    EXPECT_EQ(crc->table(), nullptr);
    crc->crcForString("x");
    crc->setPolynomial(0x8005);
    EXPECT_EQ(crc->polynomial(), 0x8005u);
    EXPECT_EQ(crc->table(), nullptr);
}

TEST(Part_8_6_CRC, CataloguedFormsReachedThroughTheSetters) {
    // CRC-16/ARC: both reflections on (from init), polynomial 0x8005.
    auto arc = KROCRC::crc();
    arc->setOrder(16);
    arc->setPolynomial(0x8005);
    arc->setInitialValue(0);
    arc->setXorValue(0);
    EXPECT_EQ(arc->crcForString("123456789"), 0xBB3Du);

    // CRC-32/BZIP2: no reflection (from initForCCITT16), order 32.
    auto bzip2 = KROCRC::crcForCCITT16();
    bzip2->setOrder(32);
    bzip2->setPolynomial(0x04C11DB7);
    bzip2->setInitialValue(0xFFFFFFFF);
    bzip2->setXorValue(0xFFFFFFFF);
    EXPECT_EQ(bzip2->crcForString("123456789"), 0xFC891918u);

    // CRC-8/SMBUS.
    auto smbus = KROCRC::crcForCCITT16();
    smbus->setOrder(8);
    smbus->setPolynomial(0x07);
    smbus->setXorValue(0);
    EXPECT_EQ(smbus->crcForString("123456789"), 0xF4u);

    // CRC-16/XMODEM.
    auto xmodem = KROCRC::crcForCCITT16();
    xmodem->setXorValue(0);
    EXPECT_EQ(xmodem->crcForString("123456789"), 0x31C3u);
}

TEST(Part_8_6_CRC, ReflectReversesTheLowBitsAndDropsTheOthers) {
    EXPECT_EQ(KROCRC::reflect(0x1, 4), 0x8u);
    EXPECT_EQ(KROCRC::reflect(0xF0F1, 4), 0x8u);
    EXPECT_EQ(KROCRC::reflect(0x01, 8), 0x80u);
    EXPECT_EQ(KROCRC::reflect(0x00000001, 32), 0x80000000u);
    EXPECT_EQ(KROCRC::reflect(0x04C11DB7, 32), 0xEDB88320u);
    EXPECT_EQ(KROCRC::reflect(0x1234, 0), 0u);
}

TEST(Part_8_6_CRC, AnEmptyInputGivesTheInitialValueRunThroughTheEnd) {
    EXPECT_EQ(KROCRC::crc()->crcForBuffer(nullptr, 0), 0u);
    EXPECT_EQ(KROCRC::crcForCCITT16()->crcForString(""), 0xFFFFu);
}

TEST(Part_8_6_CRC, OrdersBelow8StayWithinTheMask) {
    for (std::uint32_t order = 1; order < 8; ++order) {
        for (bool reflected : {false, true}) {
            auto crc = KROCRC::crcForCCITT16();
            crc->setOrder(order);
            crc->setPolynomial(0x3 & crc->mask());
            crc->setXorValue(0);
            crc->setReflectInput(reflected);
            EXPECT_LE(crc->crcForString("123456789"), crc->mask());
        }
    }
}

// ---------------------------------------------------------------------------
// 80-bit floats
// ---------------------------------------------------------------------------

TEST(Part_8_6_Extended80, ZeroWritesTenZeroBytesDroppingTheSignOfNegativeZero) {
    for (double zero : {0.0, -0.0}) {
        std::uint8_t bytes[10];
        std::memset(bytes, 0xAA, sizeof bytes);
        KROGetExtended80ForDouble(zero, bytes);
        for (std::uint8_t byte : bytes) {
            EXPECT_EQ(byte, 0);
        }
    }
}

TEST(Part_8_6_Extended80, ASetSignBitNegatesZeroAndInfinity) {
    const std::uint8_t negativeZero[10] = {0x80};
    const double zero = KRODoubleFromExtended80(negativeZero);
    EXPECT_EQ(zero, 0.0);
    EXPECT_TRUE(std::signbit(zero));
    const std::uint8_t positiveZero[10] = {};
    EXPECT_FALSE(std::signbit(KRODoubleFromExtended80(positiveZero)));
}

TEST(Part_8_6_Extended80, InfinityNaNAndOverflowWriteExponent32767WithAZeroMantissa) {
    const std::uint8_t positive[10] = {0x7F, 0xFF};
    const std::uint8_t negative[10] = {0xFF, 0xFF};
    std::uint8_t bytes[10];
    KROGetExtended80ForDouble(std::numeric_limits<double>::infinity(), bytes);
    EXPECT_EQ(std::memcmp(bytes, positive, 10), 0);
    KROGetExtended80ForDouble(-std::numeric_limits<double>::infinity(), bytes);
    EXPECT_EQ(std::memcmp(bytes, negative, 10), 0);
    KROGetExtended80ForDouble(std::numeric_limits<double>::quiet_NaN(), bytes);
    EXPECT_EQ(std::memcmp(bytes, positive, 10), 0);
}

TEST(Part_8_6_Extended80, CommonRatesRoundTrip) {
    for (double rate : {8000.0, 11025.0, 22050.0, 44100.0, 48000.0, 96000.0, 192000.0, 384000.0,
                        44100.0 * 1000 / 1001, 29.97, 0.1, 1e-300, 1e300}) {
        std::uint8_t bytes[10];
        KROGetExtended80ForDouble(rate, bytes);
        EXPECT_EQ(KRODoubleFromExtended80(bytes), rate);
        KROGetExtended80ForDouble(-rate, bytes);
        EXPECT_EQ(KRODoubleFromExtended80(bytes), -rate);
    }
}

TEST(Part_8_6_Extended80, TheValueIsTheSumOfBothHalvesScaledByTheExponent) {
    // Exponent 16383 + 4, high half 0x80000000, low half 0x00100000: 16 + 2^-39.
    const std::uint8_t bytes[10] = {0x40, 0x03, 0x80, 0, 0, 0, 0, 0x10, 0, 0};
    EXPECT_EQ(KRODoubleFromExtended80(bytes), 16.0 + std::ldexp(1.0, -39));
    // An unnormalized mantissa (no leading bit) is read by the same formula.
    const std::uint8_t unnormal[10] = {0x40, 0x00, 0x40, 0, 0, 0, 0, 0, 0, 0};
    EXPECT_EQ(KRODoubleFromExtended80(unnormal), 1.0);
}

// ---------------------------------------------------------------------------
// Deque
// ---------------------------------------------------------------------------

TEST(Part_8_6_Deque, PushesAndPopsAtBothEnds) {
    auto deque = std::make_shared<KRODeque>();
    ASSERT_TRUE(deque->initWithCapacity(4));
    deque->pushBack(token(2));
    deque->pushFront(token(1));
    deque->pushBack(token(3));
    EXPECT_EQ(valueOf(deque->popBack()), 3);
    EXPECT_EQ(valueOf(deque->popFront()), 1);
    EXPECT_EQ(valueOf(deque->popFront()), 2);
    EXPECT_EQ(deque->popBack(), nullptr);
}

TEST(Part_8_6_Deque, GrowsByChainedBlocksOfDoublingCapacity) {
    auto deque = std::make_shared<KRODeque>();
    ASSERT_TRUE(deque->initWithCapacity(2));
    EXPECT_EQ(deque->currentCapacity(), 2u);
    for (int i = 0; i < 3; ++i) {
        deque->pushBack(token(i));
    }
    EXPECT_EQ(deque->currentCapacity(), 4u);
    for (int i = 3; i < 100; ++i) {
        deque->pushBack(token(i));
    }
    EXPECT_EQ(deque->currentCapacity(), 128u);
    for (int i = 0; i < 100; ++i) {
        EXPECT_EQ(valueOf(deque->popFront()), i);
    }
    EXPECT_EQ(deque->popFront(), nullptr);
}

TEST(Part_8_6_Deque, ThePushRetainsAndThePopHandsOver) {
    auto deque = std::make_shared<KRODeque>();
    ASSERT_TRUE(deque->init());
    std::weak_ptr<KROObject> watched;
    {
        auto object = token(7);
        watched = object;
        deque->pushBack(object);
    }
    EXPECT_FALSE(watched.expired());
    auto popped = deque->popFront();
    EXPECT_EQ(popped.use_count(), 1);
    popped.reset();
    EXPECT_TRUE(watched.expired());
}

TEST(Part_8_6_Deque, ClosingTheDequeReleasesTheObjectsStillHeld) {
    std::vector<std::weak_ptr<KROObject>> watched;
    {
        auto deque = std::make_shared<KRODeque>();
        ASSERT_TRUE(deque->initWithCapacity(1));
        for (int i = 0; i < 10; ++i) {
            auto object = token(i);
            watched.push_back(object);
            deque->pushFront(object);
        }
    }
    for (const auto& object : watched) {
        EXPECT_TRUE(object.expired());
    }
}

TEST(Part_8_6_Deque, AFailedFirstBlockLogsAndGivesNoObject) {
    LogCapture log;
    auto deque = std::make_shared<KRODeque>();
    deque->setBlockAllocator([](std::size_t) -> void* { return nullptr; });
    EXPECT_FALSE(deque->init());
    ASSERT_EQ(log.lines().size(), 1u);
    EXPECT_EQ(log.lines()[0], "KRODeque could not allocate " +
                                  std::to_string(258 * sizeof(KRODeque::deque_el_t)) + " bytes");
    deque->pushBack(token(1));
    EXPECT_EQ(deque->popFront(), nullptr);
}

TEST(Part_8_6_Deque, AFailedGrowthLogsAndThePushUsesTheSentinel) {
    LogCapture log;
    bool failing = false;
    auto deque = std::make_shared<KRODeque>();
    deque->setBlockAllocator(
        [&failing](std::size_t bytes) -> void* { return failing ? nullptr : std::malloc(bytes); });
    ASSERT_TRUE(deque->initWithCapacity(1));
    deque->pushBack(token(1));
    failing = true;
    std::weak_ptr<KROObject> watched;
    {
        auto object = token(2);
        watched = object;
        deque->pushBack(object);
    }
    ASSERT_EQ(log.lines().size(), 1u);
    EXPECT_EQ(log.lines()[0], "KRODeque could not allocate " +
                                  std::to_string(sizeof(KRODeque::deque_el_t)) + " bytes");
    EXPECT_EQ(deque->currentCapacity(), 1u);
    EXPECT_FALSE(watched.expired());
    EXPECT_EQ(valueOf(deque->popBack()), 2);
    EXPECT_TRUE(watched.expired());
    EXPECT_EQ(valueOf(deque->popBack()), 1);
    EXPECT_EQ(deque->popBack(), nullptr);

    failing = false;
    for (int i = 10; i < 14; ++i) {
        deque->pushBack(token(i));
    }
    EXPECT_EQ(deque->currentCapacity(), 4u);
    for (int i = 10; i < 14; ++i) {
        EXPECT_EQ(valueOf(deque->popFront()), i);
    }
}

TEST(Part_8_6_Deque, ObjectsOnTheSentinelAreReleasedWithTheDeque) {
    LogCapture log;
    std::weak_ptr<KROObject> watched;
    {
        auto deque = std::make_shared<KRODeque>();
        bool failing = false;
        deque->setBlockAllocator([&failing](std::size_t bytes) -> void* {
            return failing ? nullptr : std::malloc(bytes);
        });
        ASSERT_TRUE(deque->initWithCapacity(1));
        deque->pushBack(token(1));
        failing = true;
        auto object = token(2);
        watched = object;
        deque->pushFront(object);
        deque->pushBack(token(3));
    }
    EXPECT_TRUE(watched.expired());
}

TEST(Part_8_6_Deque, ACapacityOf0StillGrows) {
    auto deque = std::make_shared<KRODeque>();
    ASSERT_TRUE(deque->initWithCapacity(0));
    for (int i = 0; i < 5; ++i) {
        deque->pushBack(token(i));
    }
    for (int i = 0; i < 5; ++i) {
        EXPECT_EQ(valueOf(deque->popFront()), i);
    }
}

// ---------------------------------------------------------------------------
// XML parser
// ---------------------------------------------------------------------------

TEST(Part_8_6_XMLParser, LeavesGoIntoTheRootDictionaryByDefault) {
    auto parser = KROXMLParser::parser();
    KROErrorPtr error;
    auto root =
        parser->objectForData(xmlData("<doc><a> one </a><b>two</b><c>  </c></doc>"), &error);
    EXPECT_EQ(error, nullptr);
    ASSERT_NE(root, nullptr);
    EXPECT_EQ(json(*root), "{\"a\": \"one\", \"b\": \"two\"}");
}

TEST(Part_8_6_XMLParser, TheRootClassCanBeAnArray) {
    auto parser = KROXMLParser::parser();
    parser->setRootClass(KROPropertyList::Type::Array);
    auto root = parser->objectForData(xmlData("<doc><a>1</a><a>2</a><b>3</b></doc>"));
    ASSERT_NE(root, nullptr);
    EXPECT_EQ(json(*root), "[\"1\", \"2\", \"3\"]");
    parser->setRootClass(KROPropertyList::Type::String);
    root = parser->objectForData(xmlData("<doc><a>1</a></doc>"));
    EXPECT_EQ(json(*root), "[\"1\"]");
}

TEST(Part_8_6_XMLParser, ALaterElementOfTheSameNameReplacesAnEarlierOneInADictionary) {
    auto parser = KROXMLParser::parser();
    parser->setDictionaryElements({"D"});
    auto root = parser->objectForData(
        xmlData("<r><x>1</x><y>2</y><x>3</x><D><z>4</z></D><D><w>5</w></D></r>"));
    ASSERT_NE(root, nullptr);
    EXPECT_EQ(json(*root), "{\"x\": \"3\", \"y\": \"2\", \"D\": {\"w\": \"5\"}}");
}

TEST(Part_8_6_XMLParser, KeysAreLowerCasedWhenAsked) {
    auto parser = KROXMLParser::parser();
    parser->setArrayElements({"LIST"});
    parser->setMakeKeysLowercase(true);
    auto root = parser->objectForData(
        xmlData("<R><Name>A</Name><NAME>B</NAME><LIST><Item>1</Item></LIST></R>"));
    ASSERT_NE(root, nullptr);
    EXPECT_EQ(json(*root), "{\"name\": \"B\", \"list\": [\"1\"]}");
}

TEST(Part_8_6_XMLParser, TheListsAreTestedInTheOrderOfTheAlgorithm) {
    auto parser = KROXMLParser::parser();
    parser->setIgnoredElements({"A"});
    parser->setDictionaryElements({"A", "B", "C"});
    parser->setArrayElements({"B", "C"});
    parser->setIgnoredContainers({"C", "E"});
    auto root = parser->objectForData(
        xmlData("<r><A><x>1</x></A><B><y>2</y></B><C><z>3</z></C><E><w>4</w></E></r>"));
    ASSERT_NE(root, nullptr);
    // A is ignored, so x lands in the root; B and C are dictionaries; inside
    // the ignored container E no text is gathered.
    EXPECT_EQ(json(*root), "{\"x\": \"1\", \"B\": {\"y\": \"2\"}, \"C\": {\"z\": \"3\"}}");
}

TEST(Part_8_6_XMLParser, IgnoredContainersNestAndKeepTheTextGatheredBeforeThem) {
    auto parser = KROXMLParser::parser();
    parser->setIgnoredContainers({"S"});
    auto root = parser->objectForData(
        xmlData("<r><a>kept<S>lost<S>deeper</S>still lost</S></a><b><S>x</S>after</b></r>"));
    ASSERT_NE(root, nullptr);
    EXPECT_EQ(json(*root), "{\"a\": \"kept\", \"b\": \"after\"}");
}

TEST(Part_8_6_XMLParser, TrimmingRemovesUnicodeWhiteSpaceAndLineBreaks) {
    auto parser = KROXMLParser::parser();
    auto root = parser->objectForData(xmlData(
        "<r><a>\r\n\t\xC2\xA0 text \xE3\x80\x80\xE2\x80\xA8</a><b>\xC2\xA0\xE2\x80\x89</b></r>"));
    ASSERT_NE(root, nullptr);
    EXPECT_EQ(json(*root), "{\"a\": \"text\"}");
}

TEST(Part_8_6_XMLParser, TheDelegateOperationsCanBeDrivenDirectly) {
    auto parser = KROXMLParser::parser();
    parser->setArrayElements({"L"});
    parser->didStartElement("r", "", "r", {});
    parser->didStartElement("L", "", "L", {{"id", "1"}});
    parser->didStartElement("i", "", "i", {});
    parser->foundCharacters(" fir");
    parser->foundCharacters("st ");
    parser->didEndElement("i", "", "i");
    parser->didEndElement("L", "", "L");
    parser->didEndElement("r", "", "r");
    ASSERT_NE(parser->root(), nullptr);
    EXPECT_EQ(json(*parser->root()), "{\"L\": [\"first\"]}");
}

TEST(Part_8_6_XMLParser, AnEmptyDocumentFailsWithCode4) {
    auto parser = KROXMLParser::parser();
    KROErrorPtr error;
    auto root = parser->objectForData({}, &error);
    EXPECT_EQ(root, nullptr);
    ASSERT_NE(error, nullptr);
    EXPECT_EQ(error->code(), 4);
    error.reset();
    parser->objectForData(xmlData("not xml at all"), &error);
    ASSERT_NE(error, nullptr);
    EXPECT_EQ(error->code(), 4);
}

TEST(Part_8_6_XMLParser, MalformedDocumentsGiveThePlatformCodes) {
    const std::vector<std::pair<std::string, std::int64_t>> cases = {
        {"<r><a>1</b></r>", 76},
        {"<r/><s/>", 86},
        {"<r a='1' a='2'/>", 42},
        {"<r>&nope;</r>", 26},
        {"<r>&#0;</r>", 8},
        {"<r>1 < 2</r>", 9},
        {"<r><![CDATA[open", 63},
        {"<r>\n<a>1</a>", 5},
        {"<r><a", 5},
        {"<r><?xml version='1.0'?></r>", 64},
        {"<?xml version='1.0' encoding='klingon'?><r/>", 31},
        {"<p:r/>", 0},
    };
    for (const auto& [document, code] : cases) {
        auto parser = KROXMLParser::parser();
        KROErrorPtr error;
        parser->objectForData(xmlData(document), &error);
        if (code == 0) {
            EXPECT_EQ(error, nullptr) << document;
            continue;
        }
        ASSERT_NE(error, nullptr) << document;
        EXPECT_EQ(error->code(), code) << document;
        EXPECT_EQ(error->className(), "KROXMLParserError");
    }
}

TEST(Part_8_6_XMLParser, AFailureWithoutAnErrorArgumentStillReturnsThePartialRoot) {
    auto parser = KROXMLParser::parser();
    auto root = parser->objectForData(xmlData("<r><a>1</a><b>2</b><c>3"));
    ASSERT_NE(root, nullptr);
    EXPECT_EQ(json(*root), "{\"a\": \"1\", \"b\": \"2\"}");
}

TEST(Part_8_6_XMLParser, EachParseStartsFromAFreshRoot) {
    auto parser = KROXMLParser::parser();
    auto first = parser->objectForData(xmlData("<r><a>1</a></r>"));
    auto second = parser->objectForData(xmlData("<r><b>2</b></r>"));
    ASSERT_NE(first, nullptr);
    ASSERT_NE(second, nullptr);
    EXPECT_EQ(json(*first), "{\"a\": \"1\"}");
    EXPECT_EQ(json(*second), "{\"b\": \"2\"}");
}

TEST(Part_8_6_XMLParser, EntityExpansionBombsFailCleanly) {
    std::string document = "<?xml version=\"1.0\"?>\n<!DOCTYPE lolz [\n<!ENTITY lol \"lol\">\n";
    document += "<!ENTITY lol1 \"&lol;&lol;&lol;&lol;&lol;&lol;&lol;&lol;&lol;&lol;\">\n";
    for (int i = 2; i <= 9; ++i) {
        const std::string previous = "&lol" + std::to_string(i - 1) + ";";
        std::string value;
        for (int j = 0; j < 10; ++j) {
            value += previous;
        }
        document += "<!ENTITY lol" + std::to_string(i) + " \"" + value + "\">\n";
    }
    document += "]>\n<lolz><a>&lol9;</a></lolz>";
    auto parser = KROXMLParser::parser();
    KROErrorPtr error;
    auto root = parser->objectForData(xmlData(document), &error);
    ASSERT_NE(error, nullptr);
    EXPECT_EQ(error->code(), 89);
    if (root) {
        EXPECT_EQ(root->objectForKey("a"), nullptr);
    }
}

TEST(Part_8_6_XMLParser, ExternalEntitiesAreNeverLoaded) {
    TempDir directory;
    ASSERT_TRUE(directory.valid());
    writeFile(directory / "secret.txt", std::string("top secret"));
    const std::string document = "<!DOCTYPE r [<!ENTITY s SYSTEM \"file://" +
                                 (directory / "secret.txt").string() +
                                 "\">]><r><a>&s;</a><b>x</b></r>";
    auto parser = KROXMLParser::parser();
    auto root = parser->objectForData(xmlData(document));
    ASSERT_NE(root, nullptr);
    EXPECT_EQ(json(*root).find("secret"), std::string::npos);
    EXPECT_EQ(root->objectForKey("a"), nullptr);
}

TEST(Part_8_6_XMLParser, NestingIsCappedAtTheMaximumDepth) {
    const auto nested = [](std::size_t depth, const std::string& name) {
        std::string document;
        for (std::size_t i = 0; i < depth; ++i) {
            document += "<" + name + ">";
        }
        document += "<v>x</v>";
        for (std::size_t i = 0; i < depth; ++i) {
            document += "</" + name + ">";
        }
        return document;
    };
    auto parser = KROXMLParser::parser();
    parser->setDictionaryElements({"d"});
    KROErrorPtr error;
    auto root = parser->objectForData(xmlData(nested(KROXMLParser::maximumDepth - 1, "d")), &error);
    EXPECT_EQ(error, nullptr);
    ASSERT_NE(root, nullptr);
    root = parser->objectForData(xmlData(nested(KROXMLParser::maximumDepth, "d")), &error);
    ASSERT_NE(error, nullptr);
    EXPECT_EQ(error->code(), 1);
    error.reset();
    parser->objectForData(xmlData(nested(100000, "g")), &error);
    ASSERT_NE(error, nullptr);
    EXPECT_EQ(error->code(), 1);
}

TEST(Part_8_6_XMLParser, EveryTextKeyHasAText) {
    for (const char* key : {"KROXMLParser_parsing", "KROXMLParserError_message"}) {
        EXPECT_NE(KROLocalizedString(key), key);
    }
    for (int code : {1, 2, 4, 5, 8, 9, 26, 28, 29, 30, 31, 35, 42, 63, 64, 76, 81, 86, 89, 90}) {
        const std::string key = "KROXMLParserError_failureReason_" + std::to_string(code);
        EXPECT_NE(KROLocalizedString(key), key);
    }
}

// ---------------------------------------------------------------------------
// String and data helpers
// ---------------------------------------------------------------------------

TEST(Part_8_6_StringHelpers, Base64EncodesWithPaddingAndNoLineBreaks) {
    EXPECT_EQ(kro::encodeBase64({}), "");
    EXPECT_EQ(kro::encodeBase64(bytesOf("f")), "Zg==");
    EXPECT_EQ(kro::encodeBase64(bytesOf("fo")), "Zm8=");
    EXPECT_EQ(kro::encodeBase64(bytesOf("foo")), "Zm9v");
    EXPECT_EQ(kro::encodeBase64(bytesOf("foobar")), "Zm9vYmFy");
    EXPECT_EQ(kro::encodeBase64(KROData{0xFB, 0xFF}), "+/8=");
    EXPECT_EQ(kro::encodeBase64(KROData(100, 0)).find('\n'), std::string::npos);
}

TEST(Part_8_6_StringHelpers, Base64DecodesAndSkipsWhiteSpace) {
    EXPECT_EQ(kro::decodeBase64(""), KROData{});
    EXPECT_EQ(kro::decodeBase64("Zm9vYmFy"), bytesOf("foobar"));
    EXPECT_EQ(kro::decodeBase64(" Zm 9v\r\nYm\tFy \n"), bytesOf("foobar"));
    EXPECT_EQ(kro::decodeBase64("Zg=="), bytesOf("f"));
    EXPECT_EQ(kro::decodeBase64("Zg= \n="), bytesOf("f"));
    EXPECT_EQ(kro::decodeBase64("Zm8= \n"), bytesOf("fo"));
    EXPECT_EQ(kro::decodeBase64(std::string_view("Zm9v\0garbage", 12)), bytesOf("foo"));
}

TEST(Part_8_6_StringHelpers, Base64RejectsMalformedText) {
    for (std::string_view text : {"Zg", "Zm9", "Z", "Zm9vY", "=", "Z===", "Zg=", "Zg=a", "Zg==a",
                                  "Zm8=Zm8=", "Zg==Zg==", "Zm9v=", "Zh==", "Zm9=", "Zm-v", "Zm_v",
                                  "Zm9v!", "Zm\xC3\xA9v", "Zg==\x01"}) {
        EXPECT_FALSE(kro::decodeBase64(text).has_value()) << text;
    }
}

TEST(Part_8_6_StringHelpers, DigestsHaveTheirLengthsAndKnownValues) {
    EXPECT_EQ(kro::md5Digest({}).size(), 16u);
    EXPECT_EQ(kro::sha1Digest({}).size(), 20u);
    EXPECT_EQ(kro::md5String({}), "d41d8cd98f00b204e9800998ecf8427e");
    EXPECT_EQ(kro::md5String(bytesOf("abc")), "900150983cd24fb0d6963f7d28e17f72");
    EXPECT_EQ(hex(kro::sha1Digest(bytesOf("abc"))), "a9993e364706816aba3e25717850c26c9cd0d89d");
}

TEST(Part_8_6_StringHelpers, ValuesAtPositionsAreBigEndianAndOutOfRangeReadsAre0) {
    const KROData data{0x12, 0x34, 0x56, 0x78, 0x9A};
    EXPECT_EQ(kro::byteValueAtPosition(data, 0), 0x12);
    EXPECT_EQ(kro::byteValueAtPosition(data, 4), 0x9A);
    EXPECT_EQ(kro::byteValueAtPosition(data, 5), 0);
    EXPECT_EQ(kro::bigShortValueAtPosition(data, 0), 0x1234);
    EXPECT_EQ(kro::bigShortValueAtPosition(data, 3), 0x789A);
    EXPECT_EQ(kro::bigShortValueAtPosition(data, 4), 0);
    EXPECT_EQ(kro::bigIntValueAtPosition(data, 0), 0x12345678u);
    EXPECT_EQ(kro::bigIntValueAtPosition(data, 1), 0x3456789Au);
    EXPECT_EQ(kro::bigIntValueAtPosition(data, 2), 0u);
    EXPECT_EQ(kro::bigIntValueAtPosition(data, std::numeric_limits<std::size_t>::max()), 0u);
    EXPECT_EQ(kro::bigShortValueAtPosition({}, 0), 0);
}

TEST(Part_8_6_StringHelpers, FourCharCodesWithAPrintableLowestByteKeepTheOtherBytes) {
    EXPECT_EQ(kro::stringWithFourCharCode(kro::fourCC("fmt ")), "fmt ");
    EXPECT_EQ(kro::stringWithFourCharCode(kro::fourCC("WAVE")), "WAVE");
    // Unprintable higher bytes pass as they are; 0xA5 is a bullet in Mac OS Roman.
    EXPECT_EQ(kro::stringWithFourCharCode(0xA5014142), "\xE2\x80\xA2\x01"
                                                       "AB");
    EXPECT_EQ(kro::stringWithFourCharCode(0x00414243), std::string("\0ABC", 4));
    EXPECT_EQ(kro::stringWithFourCharCode(0xDB41F041), "\xE2\x82\xAC"
                                                       "A\xEF\xA3\xBF"
                                                       "A");
}

TEST(Part_8_6_StringHelpers, FourCharCodeFillsTheHighBytesFirst) {
    EXPECT_EQ(kro::fourCharCode("fmt "), 0x666D7420u);
    EXPECT_EQ(kro::fourCharCode("ab"), 0x61620000u);
    EXPECT_EQ(kro::fourCharCode(""), 0u);
    EXPECT_EQ(kro::fourCharCode("abcdef"), 0x61626364u);
    EXPECT_EQ(kro::fourCharCode("\xE2\x80\xA2"
                                "abc"),
              0xA5616263u);
    EXPECT_EQ(kro::fourCharCode("\xE6\x97\xA5"), 0x3F000000u);
    static_assert(kro::fourCC("fmt ") == 0x666D7420u);
    static_assert(kro::fourCC("ab") == 0x61620000u);
}

TEST(Part_8_6_StringHelpers, HTMLTagsAreDeletedAndPiecesJoinedBySingleBlanks) {
    EXPECT_EQ(kro::stringByDeletingHTMLTags("<p>Hello</p><p>World</p>"), "Hello World");
    EXPECT_EQ(kro::stringByDeletingHTMLTags("plain"), "plain");
    EXPECT_EQ(kro::stringByDeletingHTMLTags("<b>bold</b> and <i>italic</i>!"),
              "bold and  italic !");
    EXPECT_EQ(kro::stringByDeletingHTMLTags("<br/>\n  <br/>"), "");
    EXPECT_EQ(kro::stringByDeletingHTMLTags("a <unclosed"), "a ");
}

TEST(Part_8_6_StringHelpers, XMLEscapesAreAddedInTheirOrder) {
    EXPECT_EQ(kro::stringByAddingXMLEscapes("a & b \"c\" 'd' <e> &amp;"),
              "a &amp; b &quot;c&quot; &#x27;d&#x27; &lt;e&gt; &amp;amp;");
}

TEST(Part_8_6_StringHelpers, LossyASCIIStripsAccentsAndReplacesTheRest) {
    EXPECT_EQ(kro::stringAsLossyASCIIString("Caf\xC3\xA9 na\xC3\xAFve Dvo\xC5\x99\xC3\xA1k"),
              "Cafe naive Dvorak");
    EXPECT_EQ(kro::stringAsLossyASCIIString("e\xCC\x81"), "e");
    EXPECT_EQ(kro::stringAsLossyASCIIString("\xE6\x97\xA5\xE2\x82\xAC\xC3\x9F"), "???");
    EXPECT_EQ(kro::stringAsLossyASCIIString("bad\xFF"), "bad?");
    EXPECT_EQ(kro::lossyASCIICString("ab"), (KROData{'a', 'b', 0}));
    EXPECT_EQ(kro::lossyASCIIPascalString("ab"), (KROData{2, 'a', 'b'}));
    EXPECT_EQ(kro::lossyASCIIPascalString(std::string(255, 'x'))->size(), 256u);
    EXPECT_FALSE(kro::lossyASCIIPascalString(std::string(256, 'x')).has_value());
}

TEST(Part_8_6_StringHelpers, RangeAndFilename) {
    EXPECT_EQ(kro::range("h\xC3\xA9llo"), NSMakeLongRange(0, 6));
    EXPECT_EQ(kro::range(""), NSMakeLongRange(0, 0));
    EXPECT_EQ(kro::filename("/Users/me/Take 1.wav"), "Take 1");
    EXPECT_EQ(kro::filename("archive.tar.gz"), "archive.tar");
    EXPECT_EQ(kro::filename("/a/b/"), "b");
    EXPECT_EQ(kro::filename("/a/.profile"), ".profile");
    EXPECT_EQ(kro::filename("noext"), "noext");
    EXPECT_EQ(kro::filename("/"), "/");
    EXPECT_EQ(kro::filename(""), "");
}

// ---------------------------------------------------------------------------
// Multipart request
// ---------------------------------------------------------------------------

TEST(Part_8_6_MultipartRequest, TheBodyFollowsAlgorithm15) {
    TempDir directory;
    ASSERT_TRUE(directory.valid());
    const auto file = directory / "take.wav";
    writeFile(file, std::string("RIFF"));
    const auto request = KROMultipartRequest::requestWithURL(
        "https://example.org/upload", {{"title", std::string("Take 1")},
                                       {"rate", std::int64_t{44100}},
                                       {"gain", 0.5},
                                       {"file", file},
                                       {"notes", bytesOf("xy")},
                                       {"other", KROMultipartRequest::OtherKind{}}});
    EXPECT_EQ(request.url, "https://example.org/upload");
    EXPECT_EQ(request.method, "POST");
    ASSERT_NE(request.valueForHeader("Content-Type"), nullptr);
    EXPECT_EQ(*request.valueForHeader("Content-Type"),
              "multipart/form-data; boundary=0xKhTmLbOuNdArY");
    const std::string expected =
        "--0xKhTmLbOuNdArY\r\nContent-Disposition: form-data; name=\"title\"\r\n\r\nTake 1\r\n"
        "--0xKhTmLbOuNdArY\r\nContent-Disposition: form-data; name=\"rate\"\r\n\r\n44100\r\n"
        "--0xKhTmLbOuNdArY\r\nContent-Disposition: form-data; name=\"gain\"\r\n\r\n0.5\r\n"
        "--0xKhTmLbOuNdArY\r\nContent-Disposition: form-data; name=\"file\"; "
        "filename=\"take.wav\"\r\nContent-Type: application/octet-stream\r\n\r\nRIFF\r\n"
        "--0xKhTmLbOuNdArY\r\nContent-Disposition: form-data; name=\"notes\"; "
        "filename=\"notes.txt\"\r\nContent-Type: application/octet-stream\r\n\r\nxy\r\n"
        "--0xKhTmLbOuNdArY\r\n\r\n"
        "--0xKhTmLbOuNdArY--\r\n";
    EXPECT_EQ(std::string(request.body.begin(), request.body.end()), expected);
}

TEST(Part_8_6_MultipartRequest, APropertyDictionaryKeepsItsOrderAndKinds) {
    KROPropertyList form = KROPropertyList::dictionary();
    form.setObjectForKey("z", KROPropertyList("last letter"));
    form.setObjectForKey("flag", KROPropertyList(true));
    form.setObjectForKey("blob", KROPropertyList(bytesOf("b")));
    form.setObjectForKey("list", KROPropertyList::array());
    const auto request = KROMultipartRequest::requestWithURL("http://h/", form);
    const std::string expected =
        "--0xKhTmLbOuNdArY\r\nContent-Disposition: form-data; name=\"z\"\r\n\r\nlast letter\r\n"
        "--0xKhTmLbOuNdArY\r\nContent-Disposition: form-data; name=\"flag\"\r\n\r\n1\r\n"
        "--0xKhTmLbOuNdArY\r\nContent-Disposition: form-data; name=\"blob\"; "
        "filename=\"blob.txt\"\r\nContent-Type: application/octet-stream\r\n\r\nb\r\n"
        "--0xKhTmLbOuNdArY\r\n\r\n"
        "--0xKhTmLbOuNdArY--\r\n";
    EXPECT_EQ(std::string(request.body.begin(), request.body.end()), expected);
}

TEST(Part_8_6_MultipartRequest, AnUnreadableFileAddsItsHeadersWithoutBytes) {
    const auto request = KROMultipartRequest::requestWithURL(
        "http://h/", {{"f", std::filesystem::path("/nonexistent/dir/missing.bin")}});
    const std::string body(request.body.begin(), request.body.end());
    EXPECT_NE(body.find("filename=\"missing.bin\"\r\nContent-Type: application/octet-stream"
                        "\r\n\r\n\r\n--0xKhTmLbOuNdArY--\r\n"),
              std::string::npos);
}

// ---------------------------------------------------------------------------
// Checks against programs nobody here wrote
// ---------------------------------------------------------------------------

TEST(Part_8_6_Oracle, CRC32AndCCITT16AgreeWithPythonZlibAndBinascii) {
    TempDir directory;
    ASSERT_TRUE(directory.valid());
    std::mt19937 random(8006);
    std::vector<std::size_t> lengths = {0, 1, 2, 3, 7, 8, 9, 15, 16, 17, 255, 256, 1000, 65537};
    for (int i = 0; i < 40; ++i) {
        lengths.push_back(std::uniform_int_distribution<std::size_t>(0, 5000)(random));
    }
    std::string files;
    std::vector<std::pair<std::uint32_t, std::uint32_t>> ours;
    for (std::size_t i = 0; i < lengths.size(); ++i) {
        const KROData data = randomData(random, lengths[i]);
        const auto path = directory / ("crc" + std::to_string(i) + ".bin");
        writeFile(path, data);
        files += " " + quoted(path);
        ours.emplace_back(KROCRC::crc()->crcForData(data),
                          KROCRC::crcForCCITT16()->crcForData(data));
    }
    writeFile(directory / "crc.py", std::string("import sys, zlib, binascii\n"
                                                "for path in sys.argv[1:]:\n"
                                                "    data = open(path, 'rb').read()\n"
                                                "    print(zlib.crc32(data) & 0xFFFFFFFF, "
                                                "binascii.crc_hqx(data, 0) ^ 0xFFFF)\n"));
    const auto result =
        KRORunCommand(std::string(kPython) + " " + quoted(directory / "crc.py") + files);
    ASSERT_EQ(result.status, 0) << result.output;
    const auto expected = lines(result.output);
    ASSERT_EQ(expected.size(), ours.size());
    for (std::size_t i = 0; i < ours.size(); ++i) {
        EXPECT_EQ(expected[i], std::to_string(ours[i].first) + " " + std::to_string(ours[i].second))
            << "length " << lengths[i];
    }
}

TEST(Part_8_6_Oracle, DigestsAgreeWithMd5sumAndSha1sum) {
    TempDir directory;
    ASSERT_TRUE(directory.valid());
    std::mt19937 random(5);
    for (std::size_t length : {0, 1, 55, 56, 63, 64, 65, 1000, 100000}) {
        const KROData data = randomData(random, length);
        const auto path = directory / "digest.bin";
        writeFile(path, data);
        const auto md5 = KRORunCommand("md5sum < " + quoted(path));
        const auto sha1 = KRORunCommand("sha1sum < " + quoted(path));
        ASSERT_EQ(md5.status, 0);
        ASSERT_EQ(sha1.status, 0);
        EXPECT_EQ(md5.output.substr(0, 32), hex(kro::md5Digest(data))) << length;
        EXPECT_EQ(md5.output.substr(0, 32), kro::md5String(data)) << length;
        EXPECT_EQ(sha1.output.substr(0, 40), hex(kro::sha1Digest(data))) << length;
    }
}

TEST(Part_8_6_Oracle, Base64AgreesWithCoreutilsBothWays) {
    TempDir directory;
    ASSERT_TRUE(directory.valid());
    std::mt19937 random(64);
    std::vector<std::size_t> lengths = {0, 1, 2, 3, 4, 5, 56, 57, 58, 100000};
    for (int i = 0; i < 20; ++i) {
        lengths.push_back(std::uniform_int_distribution<std::size_t>(0, 3000)(random));
    }
    for (std::size_t length : lengths) {
        const KROData data = randomData(random, length);
        const auto raw = directory / "raw.bin";
        const auto text = directory / "text.b64";
        writeFile(raw, data);
        const auto encoded = KRORunCommand("base64 -w 0 < " + quoted(raw));
        ASSERT_EQ(encoded.status, 0);
        EXPECT_EQ(kro::encodeBase64(data), encoded.output) << length;

        const auto wrapped = KRORunCommand("base64 < " + quoted(raw));
        ASSERT_EQ(wrapped.status, 0);
        EXPECT_EQ(kro::decodeBase64(wrapped.output), data) << length;

        writeFile(text, kro::encodeBase64(data));
        const auto decoded =
            KRORunCommand("base64 -d < " + quoted(text) + " | od -An -v -tx1 | tr -d ' \\n'");
        ASSERT_EQ(decoded.status, 0);
        EXPECT_EQ(decoded.output, hex(data)) << length;
    }
}

TEST(Part_8_6_Oracle, Base64IsStricterThanCoreutils) {
    TempDir directory;
    ASSERT_TRUE(directory.valid());
    // Text that coreutils decodes but Algorithm 14 rejects: non-zero bits in
    // the unused tail, and padding followed by more groups.
    for (std::string text : {"QR==", "QUJ=", "QQ==QQ==", "Zm8=Zm9v"}) {
        writeFile(directory / "lenient.b64", text);
        const auto decoded =
            KRORunCommand("base64 -d < " + quoted(directory / "lenient.b64") + " > /dev/null");
        EXPECT_EQ(decoded.status, 0) << text;
        EXPECT_FALSE(kro::decodeBase64(text).has_value()) << text;
    }
    // Text that both reject.
    for (std::string text : {"QQ", "Q===", "Zm9v!", "=Zm9v"}) {
        writeFile(directory / "bad.b64", text);
        const auto decoded =
            KRORunCommand("base64 -d < " + quoted(directory / "bad.b64") + " > /dev/null 2>&1");
        EXPECT_NE(decoded.status, 0) << text;
        EXPECT_FALSE(kro::decodeBase64(text).has_value()) << text;
    }
}

TEST(Part_8_6_Oracle, Extended80AgreesWithPythonStructBytes) {
    TempDir directory;
    ASSERT_TRUE(directory.valid());
    std::vector<double> values = {8000,
                                  11025,
                                  16000,
                                  22050,
                                  24000,
                                  32000,
                                  44056,
                                  44100,
                                  47952,
                                  48000,
                                  50000,
                                  64000,
                                  88200,
                                  96000,
                                  176400,
                                  192000,
                                  352800,
                                  384000,
                                  44100.5,
                                  29.97,
                                  23.976,
                                  1.0 / 3,
                                  0.1,
                                  48000.0 * 1000 / 1001,
                                  0.0,
                                  -0.0,
                                  -44100,
                                  1,
                                  2,
                                  std::numeric_limits<double>::infinity(),
                                  -std::numeric_limits<double>::infinity(),
                                  std::numeric_limits<double>::denorm_min(),
                                  std::numeric_limits<double>::min(),
                                  std::numeric_limits<double>::max(),
                                  -std::numeric_limits<double>::max(),
                                  std::numeric_limits<double>::quiet_NaN()};
    std::mt19937_64 random(80);
    for (int i = 0; i < 200; ++i) {
        const double mantissa = std::uniform_real_distribution<double>(-1, 1)(random);
        values.push_back(
            std::ldexp(mantissa, std::uniform_int_distribution<int>(-1070, 1023)(random)));
    }
    std::string script =
        "import sys, struct, math\n"
        "from fractions import Fraction\n"
        "def ext(x):\n"
        "    if x == 0:\n"
        "        return bytes(10)\n"
        "    sign = 0x8000 if x < 0 else 0\n"
        "    if math.isinf(x) or math.isnan(x):\n"
        "        return struct.pack('>HQ', sign | 0x7FFF, 0)\n"
        "    m, e = math.frexp(abs(x))\n"
        "    return struct.pack('>HQ', sign | (e + 16382), int(Fraction(m) * 2**64))\n"
        "for line in sys.stdin:\n"
        "    print(ext(float.fromhex(line.strip()) if 'nan' not in line else "
        "float('nan')).hex())\n";
    writeFile(directory / "ext.py", script);
    std::string input;
    std::vector<std::string> ours;
    for (double value : values) {
        input += (std::isnan(value) ? std::string("nan") : hexFloat(value)) + "\n";
        std::uint8_t bytes[10];
        KROGetExtended80ForDouble(value, bytes);
        ours.push_back(hex(KROData(bytes, bytes + 10)));
    }
    writeFile(directory / "values.txt", input);
    const auto result = KRORunCommand(std::string(kPython) + " " + quoted(directory / "ext.py") +
                                      " < " + quoted(directory / "values.txt"));
    ASSERT_EQ(result.status, 0) << result.output;
    const auto expected = lines(result.output);
    ASSERT_EQ(expected.size(), ours.size());
    for (std::size_t i = 0; i < ours.size(); ++i) {
        EXPECT_EQ(ours[i], expected[i]) << hexFloat(values[i]);
    }
}

TEST(Part_8_6_Oracle, Extended80ReadsAgreeWithPythonExactArithmetic) {
    TempDir directory;
    ASSERT_TRUE(directory.valid());
    std::mt19937 random(1080);
    std::vector<KROData> patterns;
    for (int i = 0; i < 300; ++i) {
        KROData bytes = randomData(random, 10);
        const int exponent = std::uniform_int_distribution<int>(16383 - 1000, 16383 + 1000)(random);
        bytes[0] = static_cast<std::uint8_t>((bytes[0] & 0x80) | (exponent >> 8));
        bytes[1] = static_cast<std::uint8_t>(exponent);
        patterns.push_back(bytes);
    }
    patterns.push_back(KROData(10, 0));
    patterns.push_back(KROData{0x80, 0, 0, 0, 0, 0, 0, 0, 0, 0});
    patterns.push_back(KROData{0x7F, 0xFF, 0xC0, 0, 0, 0, 0, 0, 0, 1});
    patterns.push_back(KROData{0x40, 0x0E, 0xAC, 0x44, 0, 0, 0, 0, 0, 0});
    std::string input;
    std::vector<double> ours;
    for (const KROData& pattern : patterns) {
        input += hex(pattern) + "\n";
        ours.push_back(KRODoubleFromExtended80(pattern.data()));
    }
    writeFile(directory / "patterns.txt", input);
    writeFile(directory / "read.py",
              std::string("import sys\n"
                          "from fractions import Fraction\n"
                          "for line in sys.stdin:\n"
                          "    b = bytes.fromhex(line.strip())\n"
                          "    e = ((b[0] & 0x7F) << 8) | b[1]\n"
                          "    m = int.from_bytes(b[2:], 'big')\n"
                          "    if e == 0 and m == 0:\n"
                          "        v = 0.0\n"
                          "    elif e == 0x7FFF:\n"
                          "        v = float('inf')\n"
                          "    else:\n"
                          "        v = float(Fraction(m) * Fraction(2) ** (e - 16383 - 63))\n"
                          "    print((-v if b[0] & 0x80 else v).hex())\n"));
    const auto result = KRORunCommand(std::string(kPython) + " " + quoted(directory / "read.py") +
                                      " < " + quoted(directory / "patterns.txt"));
    ASSERT_EQ(result.status, 0) << result.output;
    const auto expected = lines(result.output);
    ASSERT_EQ(expected.size(), ours.size());
    for (std::size_t i = 0; i < ours.size(); ++i) {
        const double value = std::strtod(expected[i].c_str(), nullptr);
        EXPECT_EQ(std::memcmp(&ours[i], &value, sizeof value), 0)
            << hex(patterns[i]) << " " << expected[i] << " " << hexFloat(ours[i]);
    }
}

namespace {

// Random documents whose containers hold only elements and whose leaves hold
// only text, so that a tree from xml.etree maps onto Algorithms 9–12.
class DocumentMaker {
public:
    explicit DocumentMaker(std::uint32_t seed) : random_(seed) {}

    std::string make(bool withEntity) {
        withEntity_ = withEntity;
        std::string document;
        if (pick(2)) {
            document += "<?xml version=\"1.0\" encoding=\"UTF-8\"?>\n";
        }
        if (withEntity) {
            document += "<!DOCTYPE Root [<!ENTITY who \"World &amp; co\">]>\n";
        }
        document += "<!-- made for Part 8.6 -->\n";
        element(document, 0, true);
        document += "\n";
        return document;
    }

private:
    int pick(int count) { return std::uniform_int_distribution<int>(0, count - 1)(random_); }

    void space(std::string& out) {
        static const std::array<const char*, 4> kSpaces = {"", "\n", "\n  ", " \t\r\n"};
        out += kSpaces[pick(4)];
    }

    void text(std::string& out) {
        static const std::array<const char*, 17> kPieces = {"plain",
                                                            "  spaced  ",
                                                            "\n\t",
                                                            "&amp;",
                                                            "&lt;tag&gt;",
                                                            "&quot;q&apos;",
                                                            "&#x263A;",
                                                            "&#233;",
                                                            "<![CDATA[ <raw> & ]]>",
                                                            "Gr\xC3\xBC\xC3\x9F"
                                                            "e",
                                                            "\xE6\x97\xA5\xE6\x9C\xAC",
                                                            "\xC2\xA0nbsp\xC2\xA0",
                                                            "\xE3\x80\x80wide",
                                                            "<!-- note -->",
                                                            "a\r\nb",
                                                            "1.5",
                                                            "x"};
        const int count = pick(4);
        for (int i = 0; i < count; ++i) {
            out += kPieces[pick(static_cast<int>(kPieces.size()))];
            if (withEntity_ && pick(6) == 0) {
                out += "&who;";
            }
        }
    }

    void element(std::string& out, int depth, bool isRoot) {
        static const std::array<const char*, 5> kContainers = {"SPEED", "TRACK", "Bext",
                                                               "TRACK_LIST", "Items"};
        static const std::array<const char*, 6> kLeaves = {"NAME",   "Value",  "m\xC3\xBCnze",
                                                           "take-2", "take_1", "NAME"};
        if (depth >= 4 || (!isRoot && pick(3) == 0)) {
            leaf(out, kLeaves[pick(static_cast<int>(kLeaves.size()))]);
            return;
        }
        const std::string name = pick(3) == 0 ? "GROUP" : kContainers[pick(5)];
        out += "<" + name + (pick(3) == 0 ? " id=\"7\" kind='x'" : "") + ">";
        const int children = pick(5);
        for (int i = 0; i < children; ++i) {
            space(out);
            element(out, depth + 1, false);
        }
        space(out);
        out += "</" + name + ">";
    }

    void leaf(std::string& out, const std::string& name) {
        if (pick(6) == 0) {
            out += "<" + name + "/>";
            return;
        }
        out += "<" + name + ">";
        text(out);
        out += "</" + name + ">";
    }

    std::mt19937 random_;
    bool withEntity_ = false;
};

} // namespace

TEST(Part_8_6_Oracle, XMLTreesAgreeWithPythonXmlEtree) {
    TempDir directory;
    ASSERT_TRUE(directory.valid());
    const std::vector<std::string> dictionaries = {"SPEED", "TRACK", "Bext"};
    const std::vector<std::string> arrays = {"TRACK_LIST", "Items"};
    std::vector<std::string> documents = {
        "<Root><NAME>a</NAME><NAME>b</NAME></Root>",
        "<SPEED><NAME> x </NAME><TRACK_LIST><Value>1</Value><Value>2</Value></TRACK_LIST></SPEED>",
        "<?xml version=\"1.0\" encoding=\"ISO-8859-1\"?><Root><NAME>Gr\xFC\xDF"
        "e</NAME></Root>",
        "\xEF\xBB\xBF<Root><Value>bom</Value></Root>",
        "<Root><NAME><![CDATA[  <b>bold</b>  ]]></NAME><Value>&#x1F600;</Value></Root>",
    };
    DocumentMaker maker(3008);
    for (int i = 0; i < 120; ++i) {
        documents.push_back(maker.make(i % 3 == 0));
    }
    std::string files;
    for (std::size_t i = 0; i < documents.size(); ++i) {
        const bool lowercase = i % 2 == 1;
        auto parser = KROXMLParser::parser();
        parser->setDictionaryElements(dictionaries);
        parser->setArrayElements(arrays);
        parser->setMakeKeysLowercase(lowercase);
        KROErrorPtr error;
        auto root = parser->objectForData(xmlData(documents[i]), &error);
        ASSERT_EQ(error, nullptr) << documents[i];
        ASSERT_NE(root, nullptr) << documents[i];
        const auto path = directory / ("doc" + std::to_string(i) + ".xml");
        writeFile(path, documents[i]);
        writeFile(directory / ("doc" + std::to_string(i) + ".xml.json"), json(*root));
        files += " " + std::string(lowercase ? "1:" : "0:") + quoted(path);
    }
    writeFile(
        directory / "etree.py",
        std::string("import sys, json, xml.etree.ElementTree as ET\n"
                    "dicts = {'SPEED', 'TRACK', 'Bext'}\n"
                    "arrays = {'TRACK_LIST', 'Items'}\n"
                    "def add(container, e, lower):\n"
                    "    key = e.tag.lower() if lower else e.tag\n"
                    "    if e.tag in dicts or e.tag in arrays:\n"
                    "        child = {} if e.tag in dicts else []\n"
                    "        if isinstance(container, list):\n"
                    "            container.append(child)\n"
                    "        else:\n"
                    "            container[key] = child\n"
                    "        for c in e:\n"
                    "            add(child, c, lower)\n"
                    "        return\n"
                    "    if len(e):\n"
                    "        for c in e:\n"
                    "            add(container, c, lower)\n"
                    "        return\n"
                    "    text = (e.text or '').strip()\n"
                    "    if not text:\n"
                    "        return\n"
                    "    if isinstance(container, list):\n"
                    "        container.append(text)\n"
                    "    else:\n"
                    "        container[key] = text\n"
                    "bad = 0\n"
                    "for argument in sys.argv[1:]:\n"
                    "    lower, path = argument.split(':', 1)\n"
                    "    expected = {}\n"
                    "    add(expected, ET.parse(path).getroot(), lower == '1')\n"
                    "    ours = json.load(open(path + '.json', encoding='utf-8'))\n"
                    "    if json.dumps(ours) != json.dumps(expected):\n"
                    "        bad += 1\n"
                    "        print('MISMATCH', path, json.dumps(expected), json.dumps(ours))\n"
                    "print('checked', len(sys.argv) - 1, 'mismatches', bad)\n"));
    const auto result =
        KRORunCommand(std::string(kPython) + " " + quoted(directory / "etree.py") + files);
    ASSERT_EQ(result.status, 0) << result.output;
    EXPECT_EQ(result.output, "checked " + std::to_string(documents.size()) + " mismatches 0\n");
}

TEST(Part_8_6_Oracle, MultipartBodiesParseWithPythonEmail) {
    TempDir directory;
    ASSERT_TRUE(directory.valid());
    std::mt19937 random(15);
    const KROData fileBytes = randomData(random, 3000);
    const auto file = directory / "sound file.bin";
    writeFile(file, fileBytes);
    const KROData blob = randomData(random, 500);
    const auto request = KROMultipartRequest::requestWithURL(
        "https://example.org/", {{"title", std::string("Gr\xC3\xBC\xC3\x9F"
                                                       "e")},
                                 {"count", std::int64_t{-12}},
                                 {"ratio", 0.25},
                                 {"upload", file},
                                 {"blob", blob}});
    writeFile(directory / "body.bin", request.body);
    writeFile(
        directory / "multipart.py",
        std::string("import sys, email\n"
                    "from email import policy\n"
                    "head = b'Content-Type: ' + sys.argv[2].encode() + b'\\r\\n\\r\\n'\n"
                    "message = email.message_from_bytes(head + open(sys.argv[1], 'rb').read(),"
                    " policy=policy.HTTP)\n"
                    "for part in message.iter_parts():\n"
                    "    name = part.get_param('name', header='content-disposition')\n"
                    "    print(name, part.get_filename(), part.get_content_type(),"
                    " part.get_payload(decode=True).hex())\n"));
    const auto result = KRORunCommand(
        std::string(kPython) + " " + quoted(directory / "multipart.py") + " " +
        quoted(directory / "body.bin") + " '" + *request.valueForHeader("Content-Type") + "'");
    ASSERT_EQ(result.status, 0) << result.output;
    const std::vector<std::string> expected = {
        "title None text/plain " + hex(bytesOf("Gr\xC3\xBC\xC3\x9F"
                                               "e")),
        "count None text/plain " + hex(bytesOf("-12")),
        "ratio None text/plain " + hex(bytesOf("0.25")),
        "upload sound file.bin application/octet-stream " + hex(fileBytes),
        "blob blob.txt application/octet-stream " + hex(blob),
    };
    EXPECT_EQ(lines(result.output), expected);
}
