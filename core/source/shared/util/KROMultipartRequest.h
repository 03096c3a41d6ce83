// A POST request whose body is a multipart form. Only the request record is
// built; sending it is the caller's business. The URL is kept as text, since it
// names a network resource.
#pragma once

#include <cstdint>
#include <filesystem>
#include <string>
#include <string_view>
#include <utility>
#include <variant>
#include <vector>

#include "KROPropertyList.h"

struct KROMultipartRequest {
    // A field of any kind other than those below adds only its boundary line.
    struct OtherKind {};
    // A field value: a string, a number (integer or real), a file URL given as
    // a path, a data block, or some other kind.
    using Value =
        std::variant<std::string, std::int64_t, double, std::filesystem::path, KROData, OtherKind>;
    using Field = std::pair<std::string, Value>;

    static constexpr std::string_view boundary = "0xKhTmLbOuNdArY";

    std::string url;
    std::string method;
    // In the order they were set.
    std::vector<std::pair<std::string, std::string>> headers;
    KROData body;

    // Fields in the given order. A file that cannot be read adds its headers
    // and no bytes.
    static KROMultipartRequest requestWithURL(std::string url, const std::vector<Field>& form);
    // A property dictionary in its key order: strings as strings, integers,
    // reals and booleans (as 1 or 0) as numbers, data blocks as data; dates,
    // arrays and dictionaries are of another kind. A property list has no file
    // URLs, so a string starting with "file://" stays a string. A value that
    // is not a dictionary gives a form without fields.
    static KROMultipartRequest requestWithURL(std::string url, const KROPropertyList& form);

    // The value of a header, null when it is not set.
    const std::string* valueForHeader(std::string_view name) const;
};
