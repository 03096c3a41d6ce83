// String and data helpers: base64 and digests against coreutils, codes, tags, escapes.
#include <gtest/gtest.h>

#include <limits>
#include <random>

#include "KROScratchDirectory.h"
#include "KROStringHelpers.h"
#include "KROTestOracles.h"

namespace {

KROData randomData(std::mt19937& random, std::size_t length) {
    KROData data(length);
    std::generate(data.begin(), data.end(), [&] { return std::uint8_t(random()); });
    return data;
}

} // namespace

// "=" padding, no line breaks; decoding skips white space and stops at a zero byte.
TEST(KROStringHelpers, Base64RoundTripsTheStandardAlphabet) {
    const std::pair<const char*, const char*> encodings[] = {
        {"", ""},        {"f", "Zg=="},          {"fo", "Zm8="},
        {"foo", "Zm9v"}, {"foobar", "Zm9vYmFy"}, {"\xFB\xFF", "+/8="}};
    for (const auto& [bytes, text] : encodings) {
        EXPECT_EQ(kro::encodeBase64(KROBytes(bytes)), text);
        EXPECT_EQ(kro::decodeBase64(text), KROBytes(bytes));
    }
    EXPECT_EQ(kro::encodeBase64(KROData(100, 0)).find('\n'), std::string::npos);
    EXPECT_EQ(kro::decodeBase64(" Zm 9v\r\nYm\tFy \n"), KROBytes("foobar"));
    EXPECT_EQ(kro::decodeBase64("Zg= \n="), KROBytes("f"));
    EXPECT_EQ(kro::decodeBase64("Zm8= \n"), KROBytes("fo"));
    EXPECT_EQ(kro::decodeBase64(std::string_view("Zm9v\0garbage", 12)), KROBytes("foo"));
}

// Malformed text gives none, stricter on purpose than coreutils.
TEST(KROStringHelpers, Base64RefusesMalformedText) {
    for (std::string_view text :
         {"Zg",    "Zm9",         "Z",        "Zm9vY", "=",    "Z===", "Zg=",  "Zg=a",
          "Zg==a", "Zm8=Zm8=",    "Zg==Zg==", "Zm9v=", "Zh==", "Zm9=", "Zm-v", "Zm_v",
          "Zm9v!", "Zm\xC3\xA9v", "Zg==\x01", "QR==",  "QUJ=", "=Zm9v"}) {
        EXPECT_FALSE(kro::decodeBase64(text).has_value()) << text;
    }
}

TEST(KROStringHelpers, AgreesWithCoreutils) {
    KROScratchDirectory directory;
    std::mt19937 random(64);
    for (std::size_t length : {0, 1, 2, 3, 55, 56, 57, 63, 64, 65, 1000, 100000}) {
        SCOPED_TRACE(length);
        const KROData data = randomData(random, length);
        KROWriteFile(directory / "raw", data);
        KROWriteFile(directory / "text", kro::encodeBase64(data));
        const auto file = [&](const char* name) { return " < " + (directory / name).string(); };
        EXPECT_EQ(KRORunCommand("base64 -w 0" + file("raw")).output, kro::encodeBase64(data));
        EXPECT_EQ(kro::decodeBase64(KRORunCommand("base64" + file("raw")).output), data);
        EXPECT_EQ(
            KRORunCommand("base64 -d" + file("text") + " | od -An -v -tx1 | tr -d ' \\n'").output,
            KROHex(data));
        const std::string md5 = KRORunCommand("md5sum" + file("raw")).output.substr(0, 32);
        EXPECT_EQ(md5, KROHex(kro::md5Digest(data)));
        EXPECT_EQ(md5, kro::md5String(data));
        EXPECT_EQ(KRORunCommand("sha1sum" + file("raw")).output.substr(0, 40),
                  KROHex(kro::sha1Digest(data)));
    }
}

// Unsigned reads at a byte position, big-endian; a read past the end gives 0.
TEST(KROStringHelpers, ValuesAtPositionsAreBigEndian) {
    const KROData data{0x12, 0x34, 0x56, 0x78, 0x9A};
    EXPECT_EQ(kro::byteValueAtPosition(data, 4), 0x9A);
    EXPECT_EQ(kro::byteValueAtPosition(data, 5), 0);
    EXPECT_EQ(kro::bigShortValueAtPosition(data, 3), 0x789A);
    EXPECT_EQ(kro::bigShortValueAtPosition(data, 4), 0);
    EXPECT_EQ(kro::bigIntValueAtPosition(data, 1), 0x3456789Au);
    EXPECT_EQ(kro::bigIntValueAtPosition(data, 2), 0u);
    EXPECT_EQ(kro::bigIntValueAtPosition(data, std::numeric_limits<std::size_t>::max()), 0u);
}

// Kept for stored files: an unprintable lowest byte blanks all four, else all
// pass, read as Mac OS Roman.
TEST(KROStringHelpers, FourCharCodesFollowTheLowestByte) {
    const std::pair<std::uint32_t, std::string> codes[] = {{0x61626300, "    "},
                                                           {0, "    "},
                                                           {0x41424319, "    "},
                                                           {0x4142437F, "    "},
                                                           {kro::fourCC("fmt "), "fmt "},
                                                           {0xA5014142, "\u2022\001AB"},
                                                           {0x00414243, std::string("\0ABC", 4)},
                                                           {0xDB41F041, "\u20ACA\uF8FFA"}};
    for (const auto& [code, text] : codes) {
        EXPECT_EQ(kro::stringWithFourCharCode(code), text) << std::hex << code;
    }
    EXPECT_EQ(kro::fourCharCode("fmt "), 0x666D7420u);
    EXPECT_EQ(kro::fourCharCode("ab"), 0x61620000u);
    EXPECT_EQ(kro::fourCharCode("abcdef"), 0x61626364u);
    EXPECT_EQ(kro::fourCharCode("\u2022abc"), 0xA5616263u);
    EXPECT_EQ(kro::fourCharCode("\xE6\x97\xA5"), 0x3F000000u);
    static_assert(kro::fourCC("ab") == 0x61620000u);
}

TEST(KROStringHelpers, TextHelpersKeepTheirExactForms) {
    const std::pair<std::string, std::string> cases[] = {
        {kro::stringByDeletingHTMLTags("<p>Hello</p><p>World</p>"), "Hello World"},
        {kro::stringByDeletingHTMLTags("<b>bold</b> and <i>it</i>!<br/>\n <br/>"),
         "bold and  it !"},
        {kro::stringByDeletingHTMLTags("a <unclosed"), "a "},
        {kro::stringByAddingXMLEscapes("& \"c\" 'd' <e> &amp;"),
         "&amp; &quot;c&quot; &#x27;d&#x27; &lt;e&gt; &amp;amp;"},
        {kro::stringAsLossyASCIIString(
             "Caf\u00e9 Dvo\u0159\u00e1k e\u0301 \u65e5\u20AC\u00df \xFF"),
         "Cafe Dvorak e ??? ?"},
        {kro::filename("/Users/me/Take 1.wav") + "|" + kro::filename("archive.tar.gz") + "|" +
             kro::filename("/a/b/"),
         "Take 1|archive.tar|b"},
        {kro::filename("/a/.profile") + "|" + kro::filename("noext") + "|" + kro::filename("/") +
             "|" + kro::filename(""),
         ".profile|noext|/|"}};
    for (const auto& [actual, expected] : cases) {
        EXPECT_EQ(actual, expected);
    }
    EXPECT_EQ(kro::lossyASCIICString("ab"), (KROData{'a', 'b', 0}));
    EXPECT_EQ(kro::lossyASCIIPascalString("ab"), (KROData{2, 'a', 'b'}));
    EXPECT_EQ(kro::lossyASCIIPascalString(std::string(255, 'x'))->size(), 256u);
    EXPECT_FALSE(kro::lossyASCIIPascalString(std::string(256, 'x')).has_value());
    EXPECT_EQ(kro::range("h\u00e9llo"), NSMakeLongRange(0, 6));
}
