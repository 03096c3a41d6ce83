// The string and data helpers of the library, as free functions in namespace
// kro. Strings are UTF-8, data blocks are KROData.
#pragma once

#include <cstddef>
#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "KRORange.h"

using KROData = std::vector<std::uint8_t>;

namespace kro {

// The alphabet A–Z a–z 0–9 + /, padded with "=", no line breaks.
std::string encodeBase64(const KROData& data);
// None for malformed text (a character outside the alphabet or above 0x7F, a
// misplaced "=", an unfinished group, or non-zero bits in the unused tail of
// the last group). White space is skipped; a zero byte ends the input.
std::optional<KROData> decodeBase64(std::string_view text);

// 16 and 20 bytes.
KROData md5Digest(const KROData& data);
KROData sha1Digest(const KROData& data);
// Lower-case hexadecimal of the MD5 digest, 32 characters.
std::string md5String(const KROData& data);

// Unsigned values at a byte position, the wider two big-endian. A value that
// does not lie wholly inside the data reads as 0.
std::uint8_t byteValueAtPosition(const KROData& data, std::size_t position);
std::uint16_t bigShortValueAtPosition(const KROData& data, std::size_t position);
std::uint32_t bigIntValueAtPosition(const KROData& data, std::size_t position);

// Kept as stored files expect it: blanks for all four bytes when the lowest
// byte is outside 0x20…0x7E, else the four bytes as they are; read highest
// first as Mac OS Roman. The result always holds four characters, a zero byte
// included.
std::string stringWithFourCharCode(std::uint32_t code);
// The first four bytes of the Mac OS Roman form (characters it lacks become
// "?"), the first in the highest byte; missing bytes are zeros.
std::uint32_t fourCharCode(std::string_view string);

// The pieces of text outside tags, each with its leading white space skipped
// as the platform's scanner does; empty pieces are dropped and each later
// piece follows a single blank.
std::string stringByDeletingHTMLTags(std::string_view string);
// "&", the double quote, the single quote, ">" and "<", in this order.
std::string stringByAddingXMLEscapes(std::string_view string);

// ASCII by lossy conversion: accented Latin letters lose their accents,
// combining accents are dropped, any other character or malformed byte
// becomes "?".
std::string stringAsLossyASCIIString(std::string_view string);
// The same, zero-terminated.
KROData lossyASCIICString(std::string_view string);
// A length byte and the ASCII bytes; none when they are 256 bytes or more.
std::optional<KROData> lossyASCIIPascalString(std::string_view string);

// Bytes of a file's text fields as ASCII. Bytes above 0x7F, which ASCII
// lacks, are read as Latin-1, so that no byte is lost and the result is
// always valid UTF-8.
std::string stringWithASCIIBytes(const std::uint8_t* bytes, std::size_t count);
// Little-endian UTF-16 of count bytes (an odd last byte is ignored); a lone
// surrogate becomes U+FFFD. A zero unit is kept as a character.
std::string stringWithUTF16LittleEndianBytes(const std::uint8_t* bytes, std::size_t count);
// Whether the bytes are well-formed UTF-8: no stray continuation byte, no
// overlong form, no surrogate, nothing past U+10FFFF.
bool isValidUTF8(std::string_view bytes);
// The string as little-endian UTF-16, no terminator; malformed UTF-8 gives U+FFFD.
KROData utf16LittleEndianData(std::string_view string);
// The length of the string in UTF-16 units, as the platform's strings count
// characters; a malformed byte counts as one.
std::size_t utf16Length(std::string_view string);

// From 0 over the length of the string in bytes of its UTF-8 form.
NSLongRange range(std::string_view string);
// The last path component without its extension: trailing "/" are ignored,
// a leading dot does not start an extension ("/a/.profile" gives ".profile").
std::string filename(std::string_view path);

// The string without the platform's white space and line breaks at either end.
std::string_view stringByTrimmingWhitespaceAndNewlines(std::string_view string);

// ASCII letters lowered, every other byte as it is.
std::string lowercaseASCII(std::string_view string);

// A four-character code from its text, first character in the highest byte;
// a shorter text leaves zeros below: fourCC("fmt ").
constexpr std::uint32_t fourCC(std::string_view text) {
    std::uint32_t code = 0;
    for (std::size_t i = 0; i < 4; ++i) {
        const std::uint32_t byte = i < text.size() ? static_cast<std::uint8_t>(text[i]) : 0;
        code |= byte << (24 - 8 * i);
    }
    return code;
}

} // namespace kro
