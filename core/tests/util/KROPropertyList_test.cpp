// KROPropertyList (DESIGN.md section 3): the property dictionary of the spec,
// read and written as property lists through libplist.
#include <gtest/gtest.h>

#include <chrono>
#include <cmath>
#include <cstdint>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <limits>
#include <plist/plist.h>
#include <random>
#include <sstream>
#include <sys/stat.h>
#include <unistd.h>

#include "KROErrorFamilies.h"
#include "KROPropertyList.h"

namespace {

using namespace std::chrono_literals;

// A directory of its own for each test, removed afterwards.
class TemporaryDirectory {
public:
    TemporaryDirectory() {
        std::random_device seed;
        path_ = std::filesystem::temp_directory_path() /
                ("kro-plist-test-" + std::to_string(::getpid()) + "-" + std::to_string(seed()));
        std::filesystem::create_directories(path_);
    }
    ~TemporaryDirectory() {
        std::error_code ignored;
        std::filesystem::remove_all(path_, ignored);
    }
    TemporaryDirectory(const TemporaryDirectory&) = delete;
    TemporaryDirectory& operator=(const TemporaryDirectory&) = delete;

    const std::filesystem::path& path() const { return path_; }

private:
    std::filesystem::path path_;
};

std::shared_ptr<KROPropertyList> readText(std::string_view text, KROErrorPtr* error = nullptr) {
    return KROPropertyList::fromData(text.data(), text.size(), error);
}

std::shared_ptr<KROPropertyList> readBytes(const std::vector<std::uint8_t>& bytes,
                                           KROErrorPtr* error = nullptr) {
    return KROPropertyList::fromData(bytes.data(), bytes.size(), error);
}

// Writes the value as XML and reads it back.
KROPropertyList roundTrip(const KROPropertyList& value) {
    const std::string xml = value.toXML();
    KROErrorPtr error;
    const auto read = readText(xml, &error);
    EXPECT_NE(read, nullptr) << xml;
    EXPECT_EQ(error, nullptr);
    return read ? *read : KROPropertyList();
}

std::string plistDocument(std::string_view body) {
    return "<?xml version=\"1.0\" encoding=\"UTF-8\"?>\n"
           "<!DOCTYPE plist PUBLIC \"-//Apple//DTD PLIST 1.0//EN\" "
           "\"http://www.apple.com/DTDs/PropertyList-1.0.dtd\">\n"
           "<plist version=\"1.0\">\n" +
           std::string(body) + "\n</plist>\n";
}

std::string repeat(std::string_view text, std::size_t count) {
    std::string result;
    result.reserve(text.size() * count);
    for (std::size_t index = 0; index < count; ++index) {
        result += text;
    }
    return result;
}

std::string nestedArraysXML(std::size_t depth) {
    return "<plist>" + repeat("<array>", depth) + repeat("</array>", depth) + "</plist>";
}

KROPropertyList nestedArrays(std::size_t depth) {
    KROPropertyList value = KROPropertyList::array();
    for (std::size_t level = 1; level < depth; ++level) {
        value = KROPropertyList(KROPropertyList::Array{std::move(value)});
    }
    return value;
}

// The binary form through libplist's own writer.
std::vector<std::uint8_t> binaryFromXML(std::string_view xml) {
    plist_t root = nullptr;
    plist_from_xml(xml.data(), static_cast<std::uint32_t>(xml.size()), &root);
    EXPECT_NE(root, nullptr);
    char* bytes = nullptr;
    std::uint32_t length = 0;
    plist_to_bin(root, &bytes, &length);
    plist_free(root);
    std::vector<std::uint8_t> result(bytes, bytes + length);
    plist_to_bin_free(bytes);
    return result;
}

// A binary property list assembled by hand, object by object, for the
// shapes that no writer makes: deep chains, shared children, cycles.
class BinaryPlistBuilder {
public:
    // An array (or dictionary, keys first) of object references.
    std::size_t addContainer(std::uint8_t type, const std::vector<std::uint64_t>& references) {
        std::vector<std::uint8_t> object;
        const std::size_t count = type == 0xD ? references.size() / 2 : references.size();
        if (count < 15) {
            object.push_back(static_cast<std::uint8_t>(type << 4 | count));
        } else {
            object.push_back(static_cast<std::uint8_t>(type << 4 | 0xF));
            object.push_back(0x13);
            appendBigEndian(object, count, 8);
        }
        return add(std::move(object), references);
    }

    std::size_t addASCIIString(std::string_view text) {
        std::vector<std::uint8_t> object{static_cast<std::uint8_t>(0x50 | text.size())};
        object.insert(object.end(), text.begin(), text.end());
        return add(std::move(object), {});
    }

    // Text as big-endian UTF-16 code units.
    std::size_t addUTF16String(const std::vector<std::uint16_t>& units) {
        std::vector<std::uint8_t> object{static_cast<std::uint8_t>(0x60 | units.size())};
        for (std::uint16_t unit : units) {
            appendBigEndian(object, unit, 2);
        }
        return add(std::move(object), {});
    }

    std::vector<std::uint8_t> build(std::size_t root) const {
        const std::size_t count = headers_.size();
        const std::size_t referenceSize = count < 256 ? 1 : count < 65536 ? 2 : 4;
        std::vector<std::uint8_t> bytes{'b', 'p', 'l', 'i', 's', 't', '0', '0'};
        std::vector<std::uint64_t> offsets;
        for (std::size_t index = 0; index < count; ++index) {
            offsets.push_back(bytes.size());
            bytes.insert(bytes.end(), headers_[index].begin(), headers_[index].end());
            for (std::uint64_t reference : references_[index]) {
                appendBigEndian(bytes, reference, referenceSize);
            }
        }
        const std::uint64_t offsetTable = bytes.size();
        for (std::uint64_t offset : offsets) {
            appendBigEndian(bytes, offset, 4);
        }
        bytes.insert(bytes.end(), 6, 0);
        bytes.push_back(4);
        bytes.push_back(static_cast<std::uint8_t>(referenceSize));
        appendBigEndian(bytes, count, 8);
        appendBigEndian(bytes, root, 8);
        appendBigEndian(bytes, offsetTable, 8);
        return bytes;
    }

private:
    std::size_t add(std::vector<std::uint8_t> header, std::vector<std::uint64_t> references) {
        headers_.push_back(std::move(header));
        references_.push_back(std::move(references));
        return headers_.size() - 1;
    }

    static void appendBigEndian(std::vector<std::uint8_t>& bytes, std::uint64_t value,
                                std::size_t size) {
        for (std::size_t index = size; index-- > 0;) {
            bytes.push_back(static_cast<std::uint8_t>(value >> (8 * index)));
        }
    }

    // Each object's marker and count, then the references that follow them.
    std::vector<std::vector<std::uint8_t>> headers_;
    std::vector<std::vector<std::uint64_t>> references_;
};

// Object i is an array holding object i + 1, the last one is empty: a chain
// of the given depth. Each container names its successor a given number of
// times, so that a width above one makes the tree expand exponentially.
std::vector<std::uint8_t> chainOfArrays(std::size_t depth, std::size_t width = 1) {
    BinaryPlistBuilder builder;
    for (std::size_t level = 0; level + 1 < depth; ++level) {
        builder.addContainer(0xA, std::vector<std::uint64_t>(width, level + 1));
    }
    builder.addContainer(0xA, {});
    return builder.build(0);
}

std::string domainOf(const KROError& error) {
    return error.domain();
}

void expectCorruptData(const KROErrorPtr& error) {
    ASSERT_NE(error, nullptr);
    EXPECT_EQ(error->className(), "KROCocoaError");
    EXPECT_EQ(domainOf(*error), "KROCocoaErrorDomain");
    EXPECT_EQ(error->code(), 3840);
    EXPECT_NE(error->description().find("Reading the property list"), std::string::npos)
        << error->description();
}

KRODate appleDate(double secondsSince2001) {
    const auto sinceUnixEpoch = std::chrono::duration<double>(978307200.0 + secondsSince2001);
    return KRODate(std::chrono::round<KRODate::duration>(sinceUnixEpoch));
}

bool programExists(const char* name) {
    const std::string command = std::string("command -v ") + name + " >/dev/null 2>&1";
    return std::system(command.c_str()) == 0;
}

std::string fileText(const std::filesystem::path& path) {
    std::ifstream file(path, std::ios::binary);
    std::stringstream text;
    text << file.rdbuf();
    return text.str();
}

} // namespace

// --- Values ---------------------------------------------------------------

TEST(KROPropertyList, ADefaultValueIsAnEmptyDictionary) {
    const KROPropertyList value;
    EXPECT_TRUE(value.isDictionary());
    EXPECT_EQ(value.count(), 0u);
    EXPECT_EQ(value.type(), KROPropertyList::Type::Dictionary);
}

TEST(KROPropertyList, EachKindAnswersOnlyItsOwnTypedRead) {
    const KROPropertyList text("text");
    const KROPropertyList integer(42);
    const KROPropertyList real(2.5);
    const KROPropertyList boolean(true);
    const KROPropertyList date(appleDate(0));
    const KROPropertyList data(KROData{1, 2, 3});
    const KROPropertyList array = KROPropertyList::array();

    EXPECT_EQ(*text.stringValue(), "text");
    EXPECT_EQ(text.integerValue(), nullptr);
    EXPECT_EQ(*integer.integerValue(), 42);
    EXPECT_EQ(integer.realValue(), nullptr);
    EXPECT_EQ(*real.realValue(), 2.5);
    EXPECT_EQ(real.integerValue(), nullptr);
    EXPECT_TRUE(*boolean.booleanValue());
    EXPECT_EQ(boolean.integerValue(), nullptr);
    EXPECT_EQ(*date.dateValue(), appleDate(0));
    EXPECT_EQ(*data.dataValue(), (KROData{1, 2, 3}));
    EXPECT_EQ(data.stringValue(), nullptr);
    EXPECT_NE(array.arrayValue(), nullptr);
    EXPECT_EQ(array.dictionaryValue(), nullptr);
    EXPECT_TRUE(integer.isNumber());
    EXPECT_TRUE(real.isNumber());
    EXPECT_FALSE(boolean.isNumber());
    EXPECT_FALSE(text.isNumber());
}

TEST(KROPropertyList, NumberReadsAcceptIntegersRealsAndBooleansButNotStrings) {
    EXPECT_EQ(KROPropertyList(7).doubleValue(), 7.0);
    EXPECT_EQ(KROPropertyList(7.75).longValue(), 7);
    EXPECT_EQ(KROPropertyList(-7.75).longValue(), -7);
    EXPECT_EQ(KROPropertyList(true).longValue(), 1);
    EXPECT_EQ(KROPropertyList(false).doubleValue(5.0), 0.0);
    EXPECT_TRUE(KROPropertyList(3).boolValue());
    EXPECT_FALSE(KROPropertyList(0.0).boolValue(true));
    EXPECT_TRUE(KROPropertyList(0.5).boolValue());

    EXPECT_EQ(KROPropertyList("12").longValue(99), 99);
    EXPECT_EQ(KROPropertyList("1.5").doubleValue(-1.0), -1.0);
    EXPECT_TRUE(KROPropertyList("0").boolValue(true));
    EXPECT_EQ(KROPropertyList::array().longValue(-3), -3);
}

TEST(KROPropertyList, LongValueOfAnOutOfRangeRealSaturates) {
    EXPECT_EQ(KROPropertyList(1e300).longValue(), std::numeric_limits<std::int64_t>::max());
    EXPECT_EQ(KROPropertyList(-1e300).longValue(), std::numeric_limits<std::int64_t>::min());
    EXPECT_EQ(KROPropertyList(std::nan("")).longValue(5), 0);
}

TEST(KROPropertyList, SetObjectForKeyReplacesInPlaceAndAppendsNewKeys) {
    KROPropertyList dictionary;
    dictionary.setObjectForKey("b", 1);
    dictionary.setObjectForKey("a", 2);
    dictionary.setObjectForKey("c", 3);
    dictionary.setObjectForKey("a", "replaced");
    EXPECT_EQ(dictionary.allKeys(), (std::vector<std::string>{"b", "a", "c"}));
    EXPECT_EQ(*dictionary.objectForKey("a")->stringValue(), "replaced");

    dictionary.removeObjectForKey("b");
    EXPECT_EQ(dictionary.allKeys(), (std::vector<std::string>{"a", "c"}));
    EXPECT_EQ(dictionary.objectForKey("b"), nullptr);
    EXPECT_EQ(dictionary.count(), 2u);
}

TEST(KROPropertyList, DictionaryOperationsOnOtherKindsDoNothing) {
    KROPropertyList array = KROPropertyList::array();
    array.setObjectForKey("key", 1);
    EXPECT_EQ(array.objectForKey("key"), nullptr);
    EXPECT_TRUE(array.allKeys().empty());
    EXPECT_EQ(array.count(), 0u);

    KROPropertyList text("text");
    text.addObject(1);
    EXPECT_EQ(text.count(), 0u);
    EXPECT_EQ(text.objectAtIndex(0), nullptr);
}

TEST(KROPropertyList, ArraysKeepTheirOrderAndAnswerNullPastTheEnd) {
    KROPropertyList array = KROPropertyList::array();
    array.addObject("first");
    array.addObject(2);
    EXPECT_EQ(array.count(), 2u);
    EXPECT_EQ(*array.objectAtIndex(0)->stringValue(), "first");
    EXPECT_EQ(*array.objectAtIndex(1)->integerValue(), 2);
    EXPECT_EQ(array.objectAtIndex(2), nullptr);
}

TEST(KROPropertyList, EqualityIsDeepAndDictionariesCompareAsOrderedEntries) {
    KROPropertyList first;
    first.setObjectForKey("a", 1);
    first.setObjectForKey("b", KROPropertyList::Array{1, "x"});
    KROPropertyList same;
    same.setObjectForKey("a", 1);
    same.setObjectForKey("b", KROPropertyList::Array{1, "x"});
    KROPropertyList reordered;
    reordered.setObjectForKey("b", KROPropertyList::Array{1, "x"});
    reordered.setObjectForKey("a", 1);
    KROPropertyList deeperDifference = same;
    deeperDifference.objectForKey("b")->arrayValue()->at(1) = "y";

    EXPECT_EQ(first, same);
    EXPECT_NE(first, reordered);
    EXPECT_NE(first, deeperDifference);
    EXPECT_NE(KROPropertyList(1), KROPropertyList(1.0));
    EXPECT_NE(KROPropertyList(1), KROPropertyList(true));
    EXPECT_EQ(KROPropertyList(std::nan("")), KROPropertyList(std::nan("")));
}

// --- Round trips through XML ---------------------------------------------

TEST(KROPropertyList, StringsWithMultibyteCharactersAndXMLSpecialsSurviveARoundTrip) {
    const std::string text = "caf\u00e9 \u6f22\u5b57 \U0001F3B5 & < > \" ' ]]> &amp;";
    const std::string xml = KROPropertyList(text).toXML();
    EXPECT_NE(xml.find("&amp;"), std::string::npos);
    EXPECT_NE(xml.find("&lt;"), std::string::npos);
    EXPECT_NE(xml.find("&gt;"), std::string::npos);
    EXPECT_EQ(roundTrip(KROPropertyList(text)), KROPropertyList(text));
    EXPECT_EQ(roundTrip(KROPropertyList("")), KROPropertyList(""));
}

TEST(KROPropertyList, IntegersKeepTheirFullSignedRange) {
    for (std::int64_t value :
         {std::numeric_limits<std::int64_t>::min(), std::int64_t{-1}, std::int64_t{0},
          std::int64_t{1}, std::int64_t{4294967296}, std::numeric_limits<std::int64_t>::max()}) {
        const KROPropertyList read = roundTrip(KROPropertyList(value));
        ASSERT_TRUE(read.isInteger()) << value;
        EXPECT_EQ(*read.integerValue(), value);
    }
}

TEST(KROPropertyList, RealsAreWrittenWithSeventeenSignificantDigits) {
    EXPECT_NE(KROPropertyList(0.1).toXML().find("<real>0.10000000000000001</real>"),
              std::string::npos);
    for (double value : {0.1, 1.0 / 3.0, 1e-310, 1e308, -2.5e-7, 123456789.123456789,
                         std::numeric_limits<double>::max(), std::numeric_limits<double>::min(),
                         std::numeric_limits<double>::denorm_min()}) {
        const KROPropertyList read = roundTrip(KROPropertyList(value));
        ASSERT_TRUE(read.isReal()) << value;
        EXPECT_EQ(*read.realValue(), value);
    }
}

TEST(KROPropertyList, RealsThatAreWholeNumbersStayReals) {
    const KROPropertyList read = roundTrip(KROPropertyList(1.0));
    ASSERT_TRUE(read.isReal());
    EXPECT_EQ(*read.realValue(), 1.0);
}

TEST(KROPropertyList, InfinitiesAndNaNSurviveARoundTrip) {
    const double infinity = std::numeric_limits<double>::infinity();
    EXPECT_EQ(*roundTrip(KROPropertyList(infinity)).realValue(), infinity);
    EXPECT_EQ(*roundTrip(KROPropertyList(-infinity)).realValue(), -infinity);
    EXPECT_TRUE(std::isnan(*roundTrip(KROPropertyList(std::nan(""))).realValue()));
}

// libplist writes negative zero as "0.0": the value comes back equal, without its sign.
TEST(KROPropertyList, NegativeZeroComesBackAsZero) {
    const KROPropertyList read = roundTrip(KROPropertyList(-0.0));
    ASSERT_TRUE(read.isReal());
    EXPECT_EQ(*read.realValue(), 0.0);
    EXPECT_FALSE(std::signbit(*read.realValue()));
}

TEST(KROPropertyList, BooleansSurviveARoundTrip) {
    EXPECT_EQ(roundTrip(KROPropertyList(true)), KROPropertyList(true));
    EXPECT_EQ(roundTrip(KROPropertyList(false)), KROPropertyList(false));
}

TEST(KROPropertyList, DataWithEveryByteValueSurvivesARoundTrip) {
    KROData bytes;
    for (int value = 0; value < 256; ++value) {
        bytes.push_back(static_cast<std::uint8_t>(value));
    }
    EXPECT_EQ(roundTrip(KROPropertyList(bytes)), KROPropertyList(bytes));
    EXPECT_EQ(roundTrip(KROPropertyList(KROData{})), KROPropertyList(KROData{}));
}

// XML dates carry whole seconds: libplist writes "YYYY-MM-DDTHH:MM:SSZ" and
// drops the fraction, truncating towards 2001-01-01.
TEST(KROPropertyList, XMLDatesKeepWholeSecondsAndDropTheFraction) {
    const KRODate whole = appleDate(600000000.0);
    EXPECT_EQ(*roundTrip(KROPropertyList(whole)).dateValue(), whole);
    EXPECT_NE(KROPropertyList(whole).toXML().find("<date>2020-01-06T10:40:00Z</date>"),
              std::string::npos);

    EXPECT_EQ(*roundTrip(KROPropertyList(appleDate(600000000.75))).dateValue(), whole);
    EXPECT_EQ(*roundTrip(KROPropertyList(appleDate(-100.0))).dateValue(), appleDate(-100.0));
    EXPECT_EQ(*roundTrip(KROPropertyList(appleDate(-100.75))).dateValue(), appleDate(-100.0));
}

TEST(KROPropertyList, DatesBeforeTheUnixEpochAndNearTheLimitsOfLibplistSurvive) {
    for (double seconds : {-1e9, -978307200.0, 0.0, 2e9}) {
        EXPECT_EQ(*roundTrip(KROPropertyList(appleDate(seconds))).dateValue(), appleDate(seconds))
            << seconds;
    }
}

// libplist keeps dates as 32-bit seconds after 2001: later ones are clamped.
TEST(KROPropertyList, DatesBeyondThirtyTwoBitSecondsAreClamped) {
    const KRODate far = appleDate(3e9);
    EXPECT_EQ(*roundTrip(KROPropertyList(far)).dateValue(), appleDate(2147483647.0));
}

TEST(KROPropertyList, ContainersNestedTwentyDeepSurviveARoundTrip) {
    KROPropertyList value("leaf");
    for (int level = 0; level < 20; ++level) {
        if (level % 2 == 0) {
            value = KROPropertyList(KROPropertyList::Array{std::move(value), level});
        } else {
            KROPropertyList dictionary;
            dictionary.setObjectForKey("level", level);
            dictionary.setObjectForKey("inner", std::move(value));
            value = std::move(dictionary);
        }
    }
    EXPECT_EQ(roundTrip(value), value);
}

TEST(KROPropertyList, DictionaryInsertionOrderSurvivesARoundTrip) {
    KROPropertyList dictionary;
    for (const char* key : {"zebra", "apple", "mango", "banana", "0", "Zed", "aardvark"}) {
        dictionary.setObjectForKey(key, key);
    }
    const KROPropertyList read = roundTrip(dictionary);
    EXPECT_EQ(read.allKeys(), (std::vector<std::string>{"zebra", "apple", "mango", "banana", "0",
                                                        "Zed", "aardvark"}));
    EXPECT_EQ(read, dictionary);
}

TEST(KROPropertyList, EveryKindTogetherSurvivesARoundTrip) {
    KROPropertyList value;
    value.setObjectForKey("string", "text");
    value.setObjectForKey("integer", -12);
    value.setObjectForKey("real", 0.1);
    value.setObjectForKey("boolean", true);
    value.setObjectForKey("date", appleDate(12345.0));
    value.setObjectForKey("data", KROData{0, 255, 10});
    value.setObjectForKey("array", KROPropertyList::Array{1, "two", 3.0});
    value.setObjectForKey("dictionary", KROPropertyList());
    EXPECT_EQ(roundTrip(value), value);
}

// --- Reading ---------------------------------------------------------------

TEST(KROPropertyList, AnyKindOfValueCanBeTheRoot) {
    EXPECT_EQ(*readText(plistDocument("<string>alone</string>")), KROPropertyList("alone"));
    EXPECT_EQ(*readText(plistDocument("<integer>-5</integer>")), KROPropertyList(-5));
    EXPECT_EQ(*readText(plistDocument("<true/>")), KROPropertyList(true));
    EXPECT_EQ(*readText(plistDocument("<array/>")), KROPropertyList::array());
    EXPECT_EQ(*readText(plistDocument("<dict/>")), KROPropertyList::dictionary());
}

TEST(KROPropertyList, CommentsCDATAAndCharacterReferencesAreRead) {
    const auto read = readText(plistDocument("<!-- a comment --><dict><key>k</key>"
                                             "<string><![CDATA[<raw> & text]]>&#x263A;</string>"
                                             "</dict>"));
    ASSERT_NE(read, nullptr);
    EXPECT_EQ(*read->objectForKey("k")->stringValue(), "<raw> & text\u263A");
}

TEST(KROPropertyList, ARepeatedKeyKeepsItsFirstPlaceAndItsLastValue) {
    const auto read = readText(plistDocument("<dict><key>a</key><integer>1</integer>"
                                             "<key>b</key><integer>2</integer>"
                                             "<key>a</key><integer>3</integer></dict>"));
    ASSERT_NE(read, nullptr);
    EXPECT_EQ(read->allKeys(), (std::vector<std::string>{"a", "b"}));
    EXPECT_EQ(*read->objectForKey("a")->integerValue(), 3);
}

// An integer above the signed range reads as the same 64 bits, as libplist keeps them.
TEST(KROPropertyList, AnUnsignedIntegerAboveTheSignedRangeKeepsItsBits) {
    const auto read = readText(plistDocument("<integer>18446744073709551615</integer>"));
    ASSERT_NE(read, nullptr);
    EXPECT_EQ(*read->integerValue(), -1);
}

TEST(KROPropertyList, ABinaryPropertyListIsRead) {
    KROPropertyList value;
    value.setObjectForKey("name", "b\u00e9b\u00e9 \U0001F3B5");
    value.setObjectForKey("count", std::numeric_limits<std::int64_t>::min());
    value.setObjectForKey("ratio", 0.1);
    value.setObjectForKey("flags", KROPropertyList::Array{true, false, KROData{1, 2}});
    value.setObjectForKey("when", appleDate(-3600.0));
    const std::vector<std::uint8_t> binary = binaryFromXML(value.toXML());
    ASSERT_GT(binary.size(), 8u);
    EXPECT_EQ(std::string(binary.begin(), binary.begin() + 8), "bplist00");

    KROErrorPtr error;
    const auto read = readBytes(binary, &error);
    ASSERT_NE(read, nullptr);
    EXPECT_EQ(error, nullptr);
    EXPECT_EQ(*read, value);
}

// Binary dates are doubles: microseconds come back, to within the one
// microsecond that libplist's truncation may lose.
TEST(KROPropertyList, BinaryDatesKeepMicroseconds) {
    for (double seconds : {12345.678901, 600000000.25, -1.5, -86400.125}) {
        plist_t node =
            plist_new_date(static_cast<std::int32_t>(seconds),
                           static_cast<std::int32_t>(std::lround(std::fmod(seconds, 1.0) * 1e6)));
        char* bytes = nullptr;
        std::uint32_t length = 0;
        plist_to_bin(node, &bytes, &length);
        plist_free(node);
        const auto read = KROPropertyList::fromData(bytes, length);
        plist_to_bin_free(bytes);
        ASSERT_NE(read, nullptr);
        ASSERT_TRUE(read->isDate());
        const auto difference = *read->dateValue() - appleDate(seconds);
        EXPECT_LE(std::chrono::abs(difference), 1us) << seconds;
    }
}

TEST(KROPropertyList, AKeyedArchiveUIDReadsAsAnInteger) {
    plist_t root = plist_new_dict();
    plist_dict_set_item(root, "$top", plist_new_uid(7));
    char* bytes = nullptr;
    std::uint32_t length = 0;
    plist_to_bin(root, &bytes, &length);
    plist_free(root);
    const auto read = KROPropertyList::fromData(bytes, length);
    plist_to_bin_free(bytes);
    ASSERT_NE(read, nullptr);
    EXPECT_EQ(*read->objectForKey("$top"), KROPropertyList(7));
}

TEST(KROPropertyList, AFileWrittenByPlistutilIsRead) {
    if (!programExists("plistutil")) {
        GTEST_SKIP() << "plistutil (libplist-utils) is not installed";
    }
    TemporaryDirectory directory;
    KROPropertyList value;
    value.setObjectForKey("title", "Sinfon\u00eda & <coda>");
    value.setObjectForKey("channels", 6);
    value.setObjectForKey("gain", -3.0103);
    value.setObjectForKey("tags", KROPropertyList::Array{"a", "b"});
    const auto xmlPath = directory.path() / "in.xml";
    const auto binaryPath = directory.path() / "out.bin";
    ASSERT_TRUE(value.writeToFile(xmlPath));
    const std::string command =
        "plistutil -i '" + xmlPath.string() + "' -o '" + binaryPath.string() + "' -f bin";
    ASSERT_EQ(std::system(command.c_str()), 0);
    ASSERT_EQ(fileText(binaryPath).substr(0, 8), "bplist00");

    KROErrorPtr error;
    const auto read = KROPropertyList::fromFile(binaryPath, &error);
    ASSERT_NE(read, nullptr) << (error ? error->description() : "");
    EXPECT_EQ(*read, value);
}

TEST(KROPropertyList, MalformedXMLFailsWithTheCorruptDataCode) {
    for (std::string_view text :
         {"garbage", "<plist><dict><key>a</key></plist>", "<plist><array><string>x</array></plist>",
          "<plist><integer>1</integer", "<plist><unknown/></plist>",
          "<plist><dict><integer>1"
          "</integer></dict></plist>",
          "\xEF\xBB\xBF", " "}) {
        KROErrorPtr error;
        EXPECT_EQ(readText(text, &error), nullptr) << text;
        expectCorruptData(error);
    }
}

TEST(KROPropertyList, EmptyAndAbsentInputFails) {
    KROErrorPtr error;
    EXPECT_EQ(KROPropertyList::fromData(nullptr, 10, &error), nullptr);
    expectCorruptData(error);
    error.reset();
    EXPECT_EQ(KROPropertyList::fromData("", 0, &error), nullptr);
    expectCorruptData(error);
}

TEST(KROPropertyList, ALengthBeyondThirtyTwoBitsFailsWithoutReading) {
    const char small[] = "<plist><true/></plist>";
    KROErrorPtr error;
    EXPECT_EQ(KROPropertyList::fromData(small, (std::size_t{1} << 32) + sizeof small, &error),
              nullptr);
    expectCorruptData(error);
}

TEST(KROPropertyList, AFailureWithoutAnErrorArgumentOnlyReturnsNull) {
    EXPECT_EQ(readText("not a property list"), nullptr);
}

TEST(KROPropertyList, EveryTruncationOfABinaryListFailsCleanly) {
    KROPropertyList value;
    value.setObjectForKey("list", KROPropertyList::Array{1, 2.5, "three", KROData{4}});
    value.setObjectForKey("flag", true);
    const std::vector<std::uint8_t> binary = binaryFromXML(value.toXML());
    for (std::size_t length = 0; length < binary.size(); ++length) {
        KROErrorPtr error;
        const std::vector<std::uint8_t> truncated(binary.begin(), binary.begin() + length);
        EXPECT_EQ(readBytes(truncated, &error), nullptr) << length;
        expectCorruptData(error);
    }
    EXPECT_NE(readBytes(binary), nullptr);
}

TEST(KROPropertyList, CorruptedBinaryListsNeverCrash) {
    KROPropertyList value;
    value.setObjectForKey("list", KROPropertyList::Array{1, 2.5, "three", KROData{4}});
    value.setObjectForKey("nested", KROPropertyList::Array{KROPropertyList::Array{"x"}});
    const std::vector<std::uint8_t> binary = binaryFromXML(value.toXML());
    std::mt19937 generator(1234);
    for (int trial = 0; trial < 3000; ++trial) {
        std::vector<std::uint8_t> corrupted = binary;
        const int changes = 1 + static_cast<int>(generator() % 4);
        for (int change = 0; change < changes; ++change) {
            corrupted[8 + generator() % (corrupted.size() - 8)] =
                static_cast<std::uint8_t>(generator());
        }
        KROErrorPtr error;
        if (!readBytes(corrupted, &error)) {
            expectCorruptData(error);
        }
    }
}

TEST(KROPropertyList, RandomBytesAsXMLNeverCrash) {
    const std::string alphabet = "<>/!?-[]\"'= \n&;#xarydicpltsgn0123456789CDATA";
    std::mt19937 generator(99);
    for (int trial = 0; trial < 3000; ++trial) {
        std::string text = "<plist>";
        const std::size_t length = generator() % 80;
        for (std::size_t index = 0; index < length; ++index) {
            text += alphabet[generator() % alphabet.size()];
        }
        KROErrorPtr error;
        if (!readText(text, &error)) {
            expectCorruptData(error);
        }
    }
}

// --- Hostile nesting ----------------------------------------------------------

TEST(KROPropertyList, NestingUpToFiveHundredTwelveLevelsIsRead) {
    const auto fromXML = readText(nestedArraysXML(512));
    ASSERT_NE(fromXML, nullptr);
    EXPECT_EQ(*fromXML, nestedArrays(512));
    const auto fromBinary = readBytes(chainOfArrays(512));
    ASSERT_NE(fromBinary, nullptr);
    EXPECT_EQ(*fromBinary, nestedArrays(512));
}

TEST(KROPropertyList, NestingBeyondFiveHundredTwelveLevelsIsRefused) {
    KROErrorPtr error;
    EXPECT_EQ(readText(nestedArraysXML(513), &error), nullptr);
    expectCorruptData(error);
    error.reset();
    EXPECT_EQ(readBytes(chainOfArrays(513), &error), nullptr);
    expectCorruptData(error);
    error.reset();
    const std::string withoutPlistElement = repeat("<array>", 513) + repeat("</array>", 513);
    EXPECT_EQ(readText(withoutPlistElement, &error), nullptr);
    expectCorruptData(error);
}

TEST(KROPropertyList, AVeryDeepBinaryListIsRefusedWithoutOverflowingTheStack) {
    KROErrorPtr error;
    EXPECT_EQ(readBytes(chainOfArrays(200000), &error), nullptr);
    expectCorruptData(error);
}

TEST(KROPropertyList, AVeryDeepXMLListIsRefusedWithoutOverflowingTheStack) {
    KROErrorPtr error;
    EXPECT_EQ(readText(nestedArraysXML(1000000), &error), nullptr);
    expectCorruptData(error);
    error.reset();
    EXPECT_EQ(readText("<plist>" + repeat("<dict><key>k</key>", 1000000), &error), nullptr);
    expectCorruptData(error);
}

// Closing tags hidden where the reader skips them must not hide the depth.
TEST(KROPropertyList, ClosingTagsInsideCommentsAndQuotesDoNotHideTheDepth) {
    for (std::string_view level : {"<array><!-- </array> -->", "<array><? x=\"?>\" </array> ?>",
                                   "<array><!DOCTYPE x [ </array> ]>", "<array foo=\"</array>\">",
                                   "<array><string><![CDATA[</array>]]></string>"}) {
        KROErrorPtr error;
        EXPECT_EQ(readText("<plist>" + repeat(level, 100000), &error), nullptr) << level;
        expectCorruptData(error);
    }
}

TEST(KROPropertyList, SharedChildrenThatWouldExpandWithoutBoundAreRefused) {
    KROErrorPtr error;
    EXPECT_EQ(readBytes(chainOfArrays(64, 2), &error), nullptr);
    expectCorruptData(error);
    error.reset();
    EXPECT_EQ(readBytes(chainOfArrays(40, 3), &error), nullptr);
    expectCorruptData(error);
}

TEST(KROPropertyList, ModestlySharedChildrenAreRead) {
    const auto read = readBytes(chainOfArrays(8, 2));
    ASSERT_NE(read, nullptr);
    KROPropertyList expected = KROPropertyList::array();
    for (int level = 1; level < 8; ++level) {
        expected = KROPropertyList(KROPropertyList::Array{expected, expected});
    }
    EXPECT_EQ(*read, expected);
}

namespace {

// The root holds chain A and chain B, and B ends in A: A, met first near the
// top, also hangs below the whole of B.
std::vector<std::uint8_t> chainBelowAnotherChain(std::uint64_t lengthOfA, std::uint64_t lengthOfB) {
    BinaryPlistBuilder builder;
    const std::uint64_t firstOfA = 1;
    const std::uint64_t firstOfB = 1 + lengthOfA;
    builder.addContainer(0xA, {firstOfA, firstOfB});
    for (std::uint64_t index = 0; index < lengthOfA; ++index) {
        builder.addContainer(0xA, index + 1 < lengthOfA
                                      ? std::vector<std::uint64_t>{firstOfA + index + 1}
                                      : std::vector<std::uint64_t>{});
    }
    for (std::uint64_t index = 0; index < lengthOfB; ++index) {
        builder.addContainer(0xA, {index + 1 < lengthOfB ? firstOfB + index + 1 : firstOfA});
    }
    return builder.build(0);
}

} // namespace

TEST(KROPropertyList, ASharedChildCountsAtItsDeepestPlace) {
    KROErrorPtr error;
    EXPECT_EQ(readBytes(chainBelowAnotherChain(300, 300), &error), nullptr);
    expectCorruptData(error);
    const auto read = readBytes(chainBelowAnotherChain(200, 200));
    ASSERT_NE(read, nullptr);
    const KROPropertyList chainA = nestedArrays(200);
    KROPropertyList chainB = chainA;
    for (int level = 0; level < 200; ++level) {
        chainB = KROPropertyList(KROPropertyList::Array{std::move(chainB)});
    }
    EXPECT_EQ(*read, KROPropertyList(KROPropertyList::Array{chainA, chainB}));
}

TEST(KROPropertyList, ACycleOfReferencesIsRefused) {
    BinaryPlistBuilder builder;
    builder.addContainer(0xA, {1});
    builder.addContainer(0xA, {0});
    KROErrorPtr error;
    EXPECT_EQ(readBytes(builder.build(0), &error), nullptr);
    expectCorruptData(error);
}

TEST(KROPropertyList, AHandBuiltBinaryDictionaryIsRead) {
    BinaryPlistBuilder builder;
    builder.addContainer(0xD, {1, 2, 3, 4});
    builder.addASCIIString("key");
    builder.addASCIIString("other");
    builder.addASCIIString("value");
    builder.addContainer(0xA, {});
    const auto read = readBytes(builder.build(0));
    ASSERT_NE(read, nullptr);
    EXPECT_EQ(read->allKeys(), (std::vector<std::string>{"key", "other"}));
    EXPECT_EQ(*read->objectForKey("key"), KROPropertyList("value"));
    EXPECT_EQ(*read->objectForKey("other"), KROPropertyList::array());
}

TEST(KROPropertyList, UTF16TextIsReadAsUTF8) {
    BinaryPlistBuilder builder;
    builder.addContainer(0xA, {1});
    builder.addUTF16String({0x0063, 0x00E9, 0xD83C, 0xDFB5});
    const auto read = readBytes(builder.build(0));
    ASSERT_NE(read, nullptr);
    EXPECT_EQ(*read, KROPropertyList(KROPropertyList::Array{"c\u00e9\U0001F3B5"}));
}

// libplist 2.2 aborts on text holding U+0000 when it is read; such input is refused first.
TEST(KROPropertyList, TextHoldingANULCharacterIsRefused) {
    for (bool asKey : {false, true}) {
        BinaryPlistBuilder builder;
        if (asKey) {
            builder.addContainer(0xD, {1, 2});
            builder.addUTF16String({0x0061, 0x0000, 0x0062});
            builder.addASCIIString("value");
        } else {
            builder.addContainer(0xA, {1});
            builder.addUTF16String({0x0061, 0x0000, 0x0062});
        }
        KROErrorPtr error;
        EXPECT_EQ(readBytes(builder.build(0), &error), nullptr) << asKey;
        expectCorruptData(error);
    }
    using namespace std::string_view_literals;
    for (std::string_view text : {"<plist><string>a\0b</string></plist>"sv,
                                  "<plist><dict><key>a\0b</key><true/></dict></plist>"sv}) {
        KROErrorPtr error;
        EXPECT_EQ(readText(text, &error), nullptr);
        expectCorruptData(error);
    }
}

// --- Files -----------------------------------------------------------------

TEST(KROPropertyList, AMissingFileFailsWithTheNoSuchFileError) {
    TemporaryDirectory directory;
    KROErrorPtr error;
    EXPECT_EQ(KROPropertyList::fromFile(directory.path() / "absent.plist", &error), nullptr);
    ASSERT_NE(error, nullptr);
    EXPECT_EQ(error->className(), "KROFileError");
    EXPECT_EQ(domainOf(*error), "KROFileErrorDomain");
    EXPECT_EQ(error->code(), 4);
    EXPECT_NE(error->description().find("Reading the property list"), std::string::npos);
}

TEST(KROPropertyList, ADirectoryIsNotReadAsAFile) {
    TemporaryDirectory directory;
    KROErrorPtr error;
    EXPECT_EQ(KROPropertyList::fromFile(directory.path(), &error), nullptr);
    ASSERT_NE(error, nullptr);
    EXPECT_EQ(error->className(), "KROFileError");
    EXPECT_EQ(error->code(), 256);
}

TEST(KROPropertyList, AFileWithMalformedContentFailsWithTheCorruptDataCode) {
    TemporaryDirectory directory;
    const auto path = directory.path() / "bad.plist";
    std::ofstream(path) << "<plist><dict>";
    KROErrorPtr error;
    EXPECT_EQ(KROPropertyList::fromFile(path, &error), nullptr);
    expectCorruptData(error);
}

TEST(KROPropertyList, WriteToFileWritesXMLThatReadsBack) {
    TemporaryDirectory directory;
    const auto path = directory.path() / "settings.plist";
    KROPropertyList value;
    value.setObjectForKey("name", "value");
    value.setObjectForKey("list", KROPropertyList::Array{1, 2});
    KROErrorPtr error;
    ASSERT_TRUE(value.writeToFile(path, &error));
    EXPECT_EQ(error, nullptr);
    EXPECT_EQ(fileText(path), value.toXML());
    EXPECT_EQ(fileText(path).rfind("<?xml", 0), 0u);
    const auto read = KROPropertyList::fromFile(path);
    ASSERT_NE(read, nullptr);
    EXPECT_EQ(*read, value);
}

TEST(KROPropertyList, WriteToFileReplacesTheFileAndLeavesNothingElseBehind) {
    TemporaryDirectory directory;
    const auto path = directory.path() / "settings.plist";
    ASSERT_TRUE(KROPropertyList("first").writeToFile(path));
    ::chmod(path.c_str(), 0640);
    ASSERT_TRUE(KROPropertyList("second").writeToFile(path));
    EXPECT_EQ(*KROPropertyList::fromFile(path), KROPropertyList("second"));
    struct stat status {};
    ASSERT_EQ(::stat(path.c_str(), &status), 0);
    EXPECT_EQ(status.st_mode & 0777, 0640u);
    const auto entries = std::distance(std::filesystem::directory_iterator(directory.path()),
                                       std::filesystem::directory_iterator());
    EXPECT_EQ(entries, 1);
}

TEST(KROPropertyList, WritingIntoAMissingDirectoryFailsWithTheNoSuchFileError) {
    TemporaryDirectory directory;
    KROErrorPtr error;
    EXPECT_FALSE(KROPropertyList("x").writeToFile(directory.path() / "absent" / "a.plist", &error));
    ASSERT_NE(error, nullptr);
    EXPECT_EQ(error->className(), "KROFileError");
    EXPECT_EQ(error->code(), 4);
    EXPECT_NE(error->description().find("Writing the property list"), std::string::npos)
        << error->description();
}

TEST(KROPropertyList, AFailedWriteLosesNothing) {
    TemporaryDirectory directory;
    const auto target = directory.path() / "occupied";
    std::filesystem::create_directory(target);
    const auto inside = target / "keep.txt";
    std::ofstream(inside) << "kept";
    KROErrorPtr error;
    EXPECT_FALSE(KROPropertyList("x").writeToFile(target, &error));
    ASSERT_NE(error, nullptr);
    EXPECT_EQ(error->className(), "KROFileError");
    EXPECT_EQ(fileText(inside), "kept");
    const auto entries = std::distance(std::filesystem::directory_iterator(directory.path()),
                                       std::filesystem::directory_iterator());
    EXPECT_EQ(entries, 1);
}
