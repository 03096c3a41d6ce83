// Property lists: reads, XML, binary lists of libplist and plistutil, hostile input, files.
#include <gtest/gtest.h>

#include <chrono>
#include <cmath>
#include <limits>
#include <numeric>
#include <plist/plist.h>
#include <sys/stat.h>

#include "KROErrorFamilies.h"
#include "KROScratchDirectory.h"
#include "KROTestOracles.h"

namespace {

using List = KROPropertyList;
using Bytes = std::vector<std::uint8_t>;

std::shared_ptr<List> read(std::string_view text, KROErrorPtr* error = nullptr) {
    return List::fromData(text.data(), text.size(), error);
}

std::shared_ptr<List> read(const Bytes& bytes, KROErrorPtr* error = nullptr) {
    return List::fromData(bytes.data(), bytes.size(), error);
}

KRODate date(double secondsSince2001) {
    using namespace std::chrono;
    return KRODate(round<KRODate::duration>(duration<double>(978307200.0 + secondsSince2001)));
}

// Refused as corrupt data (3840), and without an out-argument with null alone.
template <typename Input> void expectRefused(const Input& input) {
    KROErrorPtr error;
    EXPECT_EQ(read(input, &error), nullptr);
    ASSERT_NE(error, nullptr);
    EXPECT_EQ(error->className(), "KROCocoaError");
    EXPECT_EQ(error->code(), 3840);
    EXPECT_NE(error->description().find("Reading the property list"), std::string::npos);
    EXPECT_EQ(read(input), nullptr);
}

// The binary form through libplist's own writer.
Bytes binary(const List& value) {
    const std::string xml = value.toXML();
    plist_t root = nullptr;
    plist_from_xml(xml.data(), std::uint32_t(xml.size()), &root);
    char* bytes = nullptr;
    std::uint32_t length = 0;
    plist_to_bin(root, &bytes, &length);
    plist_free(root);
    Bytes result(bytes, bytes + length);
    plist_to_bin_free(bytes);
    return result;
}

std::string repeat(std::string_view text, std::size_t count) {
    std::string result;
    while (count-- > 0) {
        result += text;
    }
    return result;
}

List nestedArrays(std::size_t depth, List inner = List::array()) {
    while (depth-- > 1) {
        inner = List(List::Array{std::move(inner)});
    }
    return inner;
}

void append(Bytes& bytes, std::uint64_t value, std::size_t size) {
    while (size-- > 0) {
        bytes.push_back(std::uint8_t(value >> (8 * size)));
    }
}

// A binary list of hand-made objects (marker, then bytes or 4-byte references), root first.
Bytes binaryOf(const std::vector<std::pair<std::uint8_t, std::vector<std::uint64_t>>>& objects) {
    Bytes bytes{'b', 'p', 'l', 'i', 's', 't', '0', '0'}, offsets;
    for (const auto& [marker, contents] : objects) {
        append(offsets, bytes.size(), 4);
        bytes.push_back(marker);
        for (std::uint64_t item : contents) {
            append(bytes, item, (marker >> 4) == 5 ? 1 : (marker >> 4) == 6 ? 2 : 4);
        }
    }
    const std::uint64_t table = bytes.size();
    bytes.insert(bytes.end(), offsets.begin(), offsets.end());
    bytes.insert(bytes.end(), {0, 0, 0, 0, 0, 0, 4, 4});
    append(bytes, objects.size(), 8);
    append(bytes, 0, 8);
    append(bytes, table, 8);
    return bytes;
}

// Object i is an array naming object i + 1 width times; the last is empty.
Bytes chainOfArrays(std::size_t depth, std::size_t width = 1) {
    std::vector<std::pair<std::uint8_t, std::vector<std::uint64_t>>> objects;
    for (std::size_t level = 1; level <= depth; ++level) {
        objects.push_back({std::uint8_t(0xA0 | (level < depth ? width : 0)),
                           std::vector<std::uint64_t>(level < depth ? width : 0, level)});
    }
    return binaryOf(objects);
}

} // namespace

// Numbers truncate and saturate; equality is deep, ordered, by kind; XML keeps
// values within libplist's limits (dates in 32-bit whole seconds, zero unsigned).
TEST(KROPropertyList, ValuesReadAndSurviveXML) {
    EXPECT_EQ(List(-7.75).longValue(), -7);
    EXPECT_EQ(List(true).longValue(), 1);
    EXPECT_EQ(List("12").longValue(99), 99);
    EXPECT_EQ(List(-1e300).longValue(), std::numeric_limits<std::int64_t>::min());
    EXPECT_EQ(List(std::nan("")).longValue(5), 0);
    List ordered, reordered;
    for (const char* key : {"z", "a", "b"}) {
        ordered.setObjectForKey(key, key);
        reordered.setObjectForKey(key, key);
    }
    ordered.setObjectForKey("a", List::Array{1, "x", List(), date(600000000)});
    ordered.removeObjectForKey("b");
    reordered.removeObjectForKey("z");
    reordered.setObjectForKey("z", "z");
    EXPECT_EQ(ordered.allKeys(), (std::vector<std::string>{"z", "a"}));
    EXPECT_NE(ordered, reordered);
    EXPECT_NE(List(1), List(1.0));
    EXPECT_NE(List(1), List(true));
    KROData everyByte(256);
    std::iota(everyByte.begin(), everyByte.end(), 0);
    for (const List& value :
         {List("caf\u00e9 \U0001F3B5 & < > \" ' ]]>"), List(std::int64_t{1} << 40), List(0.1),
          List(1e-310), List(std::numeric_limits<double>::infinity()), List(false), List(everyByte),
          List(date(-1e9)), ordered}) {
        EXPECT_EQ(*read(value.toXML()), value) << value.toXML();
    }
    const auto back = [](const List& value) { return *read(value.toXML()); };
    EXPECT_NE(List(0.1).toXML().find("<real>0.10000000000000001</real>"), std::string::npos);
    EXPECT_EQ(back(List(date(-100.75))), List(date(-100)));
    EXPECT_EQ(back(List(date(3e9))), List(date(2147483647)));
    EXPECT_TRUE(std::isnan(*back(List(std::nan(""))).realValue()));
    EXPECT_FALSE(std::signbit(*back(List(-0.0)).realValue()));
}

// libplist and plistutil binary lists read back whole, UIDs as integers.
TEST(KROPropertyList, ReadsWhatOtherWritersWrite) {
    List value;
    value.setObjectForKey("name", "b\u00e9b\u00e9 \U0001F3B5 & <coda>");
    value.setObjectForKey("count", std::numeric_limits<std::int64_t>::min());
    value.setObjectForKey("flags", List::Array{-3.0103, false, KROData{1, 2}, date(-3600)});
    EXPECT_EQ(*read(binary(value)), value);
    plist_t archive = plist_new_dict();
    plist_dict_set_item(archive, "$top", plist_new_uid(7));
    char* bytes = nullptr;
    std::uint32_t length = 0;
    plist_to_bin(archive, &bytes, &length);
    plist_free(archive);
    EXPECT_EQ(*List::fromData(bytes, length)->objectForKey("$top"), List(7));
    plist_to_bin_free(bytes);
    KROScratchDirectory directory;
    ASSERT_TRUE(value.writeToFile(directory / "in.xml"));
    if (KRORunCommand("plistutil -f bin -i " + (directory / "in.xml").string() + " -o " +
                      (directory / "out").string())
            .status != 0) {
        GTEST_SKIP() << "plistutil (libplist-utils) is not installed";
    }
    EXPECT_EQ(*List::fromFile(directory / "out"), value);
}

// Malformed text, truncated binary lists and U+0000 fail as corrupt data.
TEST(KROPropertyList, MalformedInputIsRefused) {
    using namespace std::string_view_literals;
    for (std::string_view text :
         {"garbage"sv, "<plist><dict><key>a</key></plist>"sv, "<plist><integer>1</integer"sv,
          "<plist><array><string>x</array></plist>"sv, "<plist><unknown/></plist>"sv,
          "<plist><dict><integer>1</integer></dict></plist>"sv, "\xEF\xBB\xBF"sv, " "sv, ""sv,
          "<plist><string>a\0b</string></plist>"sv,
          "<plist><dict><key>a\0b</key><true/></dict></plist>"sv}) {
        SCOPED_TRACE(text);
        expectRefused(text);
    }
    KROErrorPtr error;
    EXPECT_EQ(List::fromData(nullptr, 10, &error), nullptr);
    EXPECT_EQ(List::fromData("<plist/>", std::size_t{1} << 33, &error), nullptr);
    EXPECT_EQ(error->code(), 3840);
    const Bytes whole = binary(List(List::Array{1, 2.5, "three", KROData{4}, List::Array{"x"}}));
    for (std::size_t length = 0; length < whole.size(); ++length) {
        expectRefused(Bytes(whole.begin(), whole.begin() + std::ptrdiff_t(length)));
    }
    expectRefused(binaryOf({{0xA1, {1}}, {0x63, {'a', 0, 'b'}}}));
    expectRefused(binaryOf({{0xD1, {1, 2}}, {0x62, {'a', 0}}, {0x51, {'v'}}}));
}

// Nesting reads to 512 levels and is refused beyond, however hidden; shared
// children count at their deepest place and may neither explode nor loop.
TEST(KROPropertyList, HostileNestingIsRefused) {
    const auto xmlArrays = [](std::size_t depth) {
        return "<plist>" + repeat("<array>", depth) + repeat("</array>", depth) + "</plist>";
    };
    EXPECT_EQ(*read(xmlArrays(512)), nestedArrays(512));
    EXPECT_EQ(*read(chainOfArrays(512)), nestedArrays(512));
    for (const std::string& text :
         {xmlArrays(513), repeat("<array>", 513) + repeat("</array>", 513), xmlArrays(1000000),
          "<plist>" + repeat("<dict><key>k</key>", 1000000)}) {
        expectRefused(text);
    }
    for (std::string_view level : {"<array><!-- </array> -->", "<array><? x=\"?>\" </array> ?>",
                                   "<array><!DOCTYPE x [ </array> ]>", "<array foo=\"</array>\">",
                                   "<array><string><![CDATA[</array>]]></string>"}) {
        expectRefused("<plist>" + repeat(level, 100000));
    }
    expectRefused(chainOfArrays(513));
    expectRefused(chainOfArrays(200000));
    expectRefused(chainOfArrays(64, 2));
    expectRefused(binaryOf({{0xA1, {1}}, {0xA1, {0}}}));
    List doubled = List::array();
    for (int level = 1; level < 8; ++level) {
        doubled = List(List::Array{doubled, doubled});
    }
    EXPECT_EQ(*read(chainOfArrays(8, 2)), doubled);
    for (const std::uint64_t length : {200, 300}) {
        std::vector<std::pair<std::uint8_t, std::vector<std::uint64_t>>> objects{
            {0xA2, {1, 1 + length}}};
        for (std::uint64_t index = 1; index <= 2 * length; ++index) {
            objects.push_back(
                {std::uint8_t(0xA0 | (index != length)),
                 std::vector<std::uint64_t>(index != length, index % (2 * length) + 1)});
        }
        if (length == 300) {
            expectRefused(binaryOf(objects));
        } else {
            const List a = nestedArrays(200);
            EXPECT_EQ(*read(binaryOf(objects)), List(List::Array{a, nestedArrays(201, a)}));
        }
    }
}

// File errors have their codes; writing replaces whole, keeps the mode, loses nothing on failure.
TEST(KROPropertyList, FilesAreReadAndReplacedWhole) {
    KROScratchDirectory directory;
    const auto path = directory / "settings.plist";
    const std::tuple<std::int64_t, const char*, std::function<bool(KROErrorPtr*)>> failures[] = {
        {4, "Reading", [&](auto* e) { return bool(List::fromFile(directory / "absent", e)); }},
        {256, "Reading", [&](auto* e) { return bool(List::fromFile(directory.path(), e)); }},
        {4, "Writing", [&](auto* e) { return List().writeToFile(directory / "absent" / "a", e); }},
    };
    for (const auto& [code, action, attempt] : failures) {
        KROErrorPtr error;
        EXPECT_FALSE(attempt(&error));
        EXPECT_EQ(error->className(), "KROFileError");
        EXPECT_EQ(error->code(), code);
        EXPECT_EQ(error->description().find(std::string(action) + " the property list"), 0u);
    }
    KROWriteFile(path, std::string_view("<plist><dict>"));
    KROErrorPtr error;
    EXPECT_EQ(List::fromFile(path, &error), nullptr);
    EXPECT_EQ(error->code(), 3840);
    ::chmod(path.c_str(), 0640);
    const List value(List::Array{1, 2});
    ASSERT_TRUE(value.writeToFile(path));
    std::ifstream file(path);
    EXPECT_EQ(std::string(std::istreambuf_iterator<char>(file), {}), value.toXML());
    struct stat status {};
    ASSERT_EQ(::stat(path.c_str(), &status), 0);
    EXPECT_EQ(status.st_mode & 0777, 0640u);
    std::filesystem::create_directory(directory / "full");
    KROWriteFile(directory / "full" / "keep", std::string_view("kept"));
    EXPECT_FALSE(List("x").writeToFile(directory / "full", &error));
    EXPECT_EQ(error->className(), "KROFileError");
    EXPECT_TRUE(std::filesystem::exists(directory / "full" / "keep"));
    EXPECT_EQ(std::distance(std::filesystem::directory_iterator(directory.path()), {}), 2);
}
