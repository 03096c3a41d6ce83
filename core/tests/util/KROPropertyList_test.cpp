// Property lists: number reads, order, XML round trips, binary lists from
// libplist and plistutil, hostile input of every kind, and files.
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
    return KRODate(std::chrono::round<KRODate::duration>(
        std::chrono::duration<double>(978307200.0 + secondsSince2001)));
}

// Refused as corrupt data (3840), or without an out-argument with null alone.
void expectRefused(const std::shared_ptr<List>& list, const KROErrorPtr& error) {
    EXPECT_EQ(list, nullptr);
    ASSERT_NE(error, nullptr);
    EXPECT_EQ(error->className(), "KROCocoaError");
    EXPECT_EQ(error->code(), 3840);
    EXPECT_NE(error->description().find("Reading the property list"), std::string::npos);
}

template <typename Input> void expectRefused(const Input& input) {
    KROErrorPtr error;
    const auto list = read(input, &error);
    expectRefused(list, error);
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

// A binary property list assembled object by object, object 0 the root, for
// the shapes no writer makes: deep chains, shared children, cycles, NUL text.
class BinaryPlist {
public:
    // An array (0xA) or a dictionary (0xD, keys first) of object references.
    BinaryPlist& container(std::uint8_t type, const std::vector<std::uint64_t>& references) {
        const std::size_t count = type == 0xD ? references.size() / 2 : references.size();
        Bytes object{std::uint8_t(type << 4 | std::min<std::size_t>(count, 15))};
        if (count >= 15) {
            object.push_back(0x13);
            append(object, count, 8);
        }
        for (std::uint64_t reference : references) {
            append(object, reference, 4);
        }
        return add(object);
    }
    // Text of one byte (0x5) or of big-endian UTF-16 units (0x6) a character.
    BinaryPlist& text(std::uint8_t type, const std::vector<std::uint16_t>& units) {
        Bytes object{std::uint8_t(type << 4 | units.size())};
        for (std::uint16_t unit : units) {
            append(object, unit, type == 5 ? 1 : 2);
        }
        return add(object);
    }
    Bytes build() {
        const std::uint64_t table = bytes_.size();
        bytes_.insert(bytes_.end(), offsets_.begin(), offsets_.end());
        bytes_.insert(bytes_.end(), {0, 0, 0, 0, 0, 0, 4, 4});
        append(bytes_, offsets_.size() / 4, 8);
        append(bytes_, 0, 8);
        append(bytes_, table, 8);
        return bytes_;
    }

private:
    BinaryPlist& add(const Bytes& object) {
        append(offsets_, bytes_.size(), 4);
        bytes_.insert(bytes_.end(), object.begin(), object.end());
        return *this;
    }
    static void append(Bytes& bytes, std::uint64_t value, std::size_t size) {
        while (size-- > 0) {
            bytes.push_back(std::uint8_t(value >> (8 * size)));
        }
    }
    Bytes bytes_{'b', 'p', 'l', 'i', 's', 't', '0', '0'}, offsets_;
};

// Object i is an array naming object i + 1 width times; the last is empty.
Bytes chainOfArrays(std::size_t depth, std::size_t width = 1) {
    BinaryPlist plist;
    for (std::size_t level = 1; level < depth; ++level) {
        plist.container(0xA, std::vector<std::uint64_t>(width, level));
    }
    return plist.container(0xA, {}).build();
}

} // namespace

// Number reads truncate, saturate and fall back for other kinds; containers
// keep first-insertion order; equality is deep, ordered and by kind; every
// kind survives XML within libplist's limits: dates in whole seconds, cut
// toward 2001 and clamped to 32 bits, negative zero without its sign.
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

// Any value may be the root; comments, CDATA and references are read; a
// repeated key keeps its first place and its last value; an integer above the
// signed range keeps its bits; binary lists of libplist and plistutil read
// back whole, dates to the microsecond and keyed-archive UIDs as integers.
TEST(KROPropertyList, ReadsWhatOtherWritersWrite) {
    EXPECT_EQ(*read("<plist><true/></plist>"), List(true));
    EXPECT_EQ(*read("<plist><integer>18446744073709551615</integer></plist>"), List(-1));
    const auto special = read("<?xml version=\"1.0\"?><plist><!-- c --><dict><key>k</key><string>"
                              "<![CDATA[<raw> & ]]>&#x263A;</string><key>a</key><integer>1"
                              "</integer><key>k</key><integer>3</integer></dict></plist>");
    EXPECT_EQ(special->allKeys(), (std::vector<std::string>{"k", "a"}));
    EXPECT_EQ(*special->objectForKey("k"), List(3));
    List value;
    value.setObjectForKey("name", "b\u00e9b\u00e9 \U0001F3B5 & <coda>");
    value.setObjectForKey("count", std::numeric_limits<std::int64_t>::min());
    value.setObjectForKey("flags", List::Array{-3.0103, false, KROData{1, 2}, date(-3600)});
    EXPECT_EQ(*read(binary(value)), value);
    for (double seconds : {12345.678901, -86400.125}) {
        plist_t root = plist_new_dict();
        plist_dict_set_item(
            root, "when",
            plist_new_date(std::int32_t(seconds), std::int32_t(std::fmod(seconds, 1) * 1e6)));
        plist_dict_set_item(root, "$top", plist_new_uid(7));
        char* bytes = nullptr;
        std::uint32_t length = 0;
        plist_to_bin(root, &bytes, &length);
        plist_free(root);
        const auto back = List::fromData(bytes, length);
        plist_to_bin_free(bytes);
        EXPECT_LE(std::chrono::abs(*back->objectForKey("when")->dateValue() - date(seconds)),
                  std::chrono::microseconds(1));
        EXPECT_EQ(*back->objectForKey("$top"), List(7));
    }
    KROScratchDirectory directory;
    ASSERT_TRUE(value.writeToFile(directory / "in.xml"));
    const auto converted = KRORunCommand("plistutil -f bin -i " + (directory / "in.xml").string() +
                                         " -o " + (directory / "out").string());
    if (converted.status != 0) {
        GTEST_SKIP() << "plistutil (libplist-utils) is not installed";
    }
    EXPECT_EQ(*List::fromFile(directory / "out"), value);
}

// Malformed text, every truncation of a binary list, and text holding U+0000
// (which libplist cannot take) fail as corrupt data.
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
    expectRefused(List::fromData(nullptr, 10, &error), error);
    const char small[] = "<plist><true/></plist>";
    expectRefused(List::fromData(small, (std::size_t{1} << 32) + sizeof small, &error), error);
    List value;
    value.setObjectForKey("list", List::Array{1, 2.5, "three", KROData{4}, List::Array{"x"}});
    const Bytes whole = binary(value);
    for (std::size_t length = 0; length < whole.size(); ++length) {
        expectRefused(Bytes(whole.begin(), whole.begin() + std::ptrdiff_t(length)));
    }
    expectRefused(BinaryPlist().container(0xA, {1}).text(6, {'a', 0, 'b'}).build());
    expectRefused(BinaryPlist().container(0xD, {1, 2}).text(6, {'a', 0}).text(5, {'v'}).build());
    List expected;
    expected.setObjectForKey("key", "v");
    expected.setObjectForKey("c\u00e9\U0001F3B5", List::array());
    EXPECT_EQ(*read(BinaryPlist()
                        .container(0xD, {1, 2, 3, 4})
                        .text(5, {'k', 'e', 'y'})
                        .text(6, {0x0063, 0x00E9, 0xD83C, 0xDFB5})
                        .text(5, {'v'})
                        .container(0xA, {})
                        .build()),
              expected);
}

// Nesting is read to 512 levels and refused beyond without exhausting the
// stack however deep, whatever the reader skips; shared children count at
// their deepest place and may not expand without bound or form a cycle.
TEST(KROPropertyList, HostileNestingIsRefused) {
    const auto xmlArrays = [](std::size_t depth) {
        return "<plist>" + repeat("<array>", depth) + repeat("</array>", depth) + "</plist>";
    };
    EXPECT_EQ(*read(xmlArrays(512)), nestedArrays(512));
    EXPECT_EQ(*read(chainOfArrays(512)), nestedArrays(512));
    expectRefused(xmlArrays(513));
    expectRefused(chainOfArrays(513));
    expectRefused(repeat("<array>", 513) + repeat("</array>", 513));
    expectRefused(chainOfArrays(200000));
    expectRefused(xmlArrays(1000000));
    expectRefused("<plist>" + repeat("<dict><key>k</key>", 1000000));
    for (std::string_view level : {"<array><!-- </array> -->", "<array><? x=\"?>\" </array> ?>",
                                   "<array><!DOCTYPE x [ </array> ]>", "<array foo=\"</array>\">",
                                   "<array><string><![CDATA[</array>]]></string>"}) {
        expectRefused("<plist>" + repeat(level, 100000));
    }
    expectRefused(chainOfArrays(64, 2));
    expectRefused(chainOfArrays(40, 3));
    List doubled = List::array();
    for (int level = 1; level < 8; ++level) {
        doubled = List(List::Array{doubled, doubled});
    }
    EXPECT_EQ(*read(chainOfArrays(8, 2)), doubled);
    // The root holds chains A and B of the same length, and B ends in A.
    for (const std::uint64_t length : {200, 300}) {
        BinaryPlist plist;
        plist.container(0xA, {1, 1 + length});
        for (std::uint64_t index = 1; index <= 2 * length; ++index) {
            plist.container(0xA,
                            std::vector<std::uint64_t>(index != length, index % (2 * length) + 1));
        }
        if (length == 300) {
            expectRefused(plist.build());
        } else {
            const List chainA = nestedArrays(200);
            EXPECT_EQ(*read(plist.build()), List(List::Array{chainA, nestedArrays(201, chainA)}));
        }
    }
    expectRefused(BinaryPlist().container(0xA, {1}).container(0xA, {0}).build());
}

// A missing file is "no such file" (4), a directory not a file (256); writing
// replaces the file whole, keeps its mode, leaves nothing beside it, and a
// failed write loses nothing.
TEST(KROPropertyList, FilesAreReadAndReplacedWhole) {
    KROScratchDirectory directory;
    const auto expectFileError = [](const KROErrorPtr& error, std::int64_t code, const char* what) {
        ASSERT_NE(error, nullptr);
        EXPECT_EQ(error->className(), "KROFileError");
        EXPECT_EQ(error->code(), code);
        EXPECT_NE(error->description().find(what), std::string::npos) << error->description();
    };
    KROErrorPtr error;
    EXPECT_EQ(List::fromFile(directory / "absent", &error), nullptr);
    expectFileError(error, 4, "Reading the property list");
    EXPECT_EQ(List::fromFile(directory.path(), &error), nullptr);
    expectFileError(error, 256, "Reading the property list");
    EXPECT_FALSE(List("x").writeToFile(directory / "absent" / "a.plist", &error));
    expectFileError(error, 4, "Writing the property list");
    const auto path = directory / "settings.plist";
    KROWriteFile(path, std::string_view("<plist><dict>"));
    error.reset();
    expectRefused(List::fromFile(path, &error), error);
    ::chmod(path.c_str(), 0640);
    const List value(List::Array{1, 2});
    ASSERT_TRUE(value.writeToFile(path, &error));
    std::ifstream file(path);
    EXPECT_EQ(std::string(std::istreambuf_iterator<char>(file), {}), value.toXML());
    struct stat status {};
    ASSERT_EQ(::stat(path.c_str(), &status), 0);
    EXPECT_EQ(status.st_mode & 0777, 0640u);
    std::filesystem::create_directory(directory / "occupied");
    KROWriteFile(directory / "occupied" / "keep", std::string_view("kept"));
    EXPECT_FALSE(List("x").writeToFile(directory / "occupied", &error));
    EXPECT_EQ(error->className(), "KROFileError");
    EXPECT_TRUE(std::filesystem::exists(directory / "occupied" / "keep"));
    EXPECT_EQ(std::distance(std::filesystem::directory_iterator(directory.path()), {}), 2);
}
