// Multipart form requests: the exact body of every kind of field, and bodies
// that Python's email package parses back into the same fields.
#include <gtest/gtest.h>

#include <random>

#include "KROMultipartRequest.h"
#include "KROScratchDirectory.h"
#include "KROTestOracles.h"

namespace {

std::string bodyOf(const KROMultipartRequest& request) {
    return std::string(request.body.begin(), request.body.end());
}

const std::string kBoundary = "--0xKhTmLbOuNdArY\r\n";

std::string field(const std::string& name, const std::string& value) {
    return kBoundary + "Content-Disposition: form-data; name=\"" + name + "\"\r\n\r\n" + value +
           "\r\n";
}

std::string file(const std::string& name, const std::string& filename, const std::string& bytes) {
    return kBoundary + "Content-Disposition: form-data; name=\"" + name + "\"; filename=\"" +
           filename + "\"\r\nContent-Type: application/octet-stream\r\n\r\n" + bytes + "\r\n";
}

} // namespace

// Strings and numbers as text, a file by its name and bytes, a data block as
// "<key>.txt", any other kind as its boundary line alone, in the given order.
TEST(KROMultipartRequest, TheBodyHoldsEachFieldByItsKind) {
    KROScratchDirectory directory;
    KROWriteFile(directory / "take.wav", std::string_view("RIFF"));
    const auto request = KROMultipartRequest::requestWithURL(
        "https://example.org/upload", {{"title", std::string("Take 1")},
                                       {"rate", std::int64_t{44100}},
                                       {"gain", 0.5},
                                       {"file", directory / "take.wav"},
                                       {"missing", std::filesystem::path("/nonexistent/x.bin")},
                                       {"notes", KROBytes("xy")},
                                       {"other", KROMultipartRequest::OtherKind{}}});
    EXPECT_EQ(request.url, "https://example.org/upload");
    EXPECT_EQ(request.method, "POST");
    ASSERT_NE(request.valueForHeader("Content-Type"), nullptr);
    EXPECT_EQ(*request.valueForHeader("Content-Type"),
              "multipart/form-data; boundary=0xKhTmLbOuNdArY");
    EXPECT_EQ(bodyOf(request), field("title", "Take 1") + field("rate", "44100") +
                                   field("gain", "0.5") + file("file", "take.wav", "RIFF") +
                                   file("missing", "x.bin", "") + file("notes", "notes.txt", "xy") +
                                   kBoundary + "\r\n--0xKhTmLbOuNdArY--\r\n");
    KROPropertyList form;
    form.setObjectForKey("z", "last letter");
    form.setObjectForKey("flag", true);
    form.setObjectForKey("blob", KROBytes("b"));
    form.setObjectForKey("list", KROPropertyList::array());
    EXPECT_EQ(bodyOf(KROMultipartRequest::requestWithURL("http://h/", form)),
              field("z", "last letter") + field("flag", "1") + file("blob", "blob.txt", "b") +
                  kBoundary + "\r\n--0xKhTmLbOuNdArY--\r\n");
}

TEST(KROMultipartRequest, PythonEmailReadsTheSameFields) {
    KROScratchDirectory directory;
    std::mt19937 random(15);
    KROData fileBytes(3000), blob(500);
    for (auto* data : {&fileBytes, &blob}) {
        for (auto& byte : *data) {
            byte = static_cast<std::uint8_t>(random());
        }
    }
    KROWriteFile(directory / "sound file.bin", fileBytes);
    const auto request = KROMultipartRequest::requestWithURL(
        "https://example.org/", {{"title", std::string("Gr\xC3\xBC\xC3\x9F")},
                                 {"count", std::int64_t{-12}},
                                 {"ratio", 0.25},
                                 {"upload", directory / "sound file.bin"},
                                 {"blob", blob}});
    KROWriteFile(directory / "body", request.body);
    const auto result = KRORunPython(
        "import sys, email\n"
        "from email import policy\n"
        "head = b'Content-Type: ' + sys.argv[2].encode() + b'\\r\\n\\r\\n'\n"
        "message = email.message_from_bytes(head + open(sys.argv[1], 'rb').read(),"
        " policy=policy.HTTP)\n"
        "for part in message.iter_parts():\n"
        "    print(part.get_param('name', header='content-disposition'), part.get_filename(),"
        " part.get_content_type(), part.get_payload(decode=True).hex())\n",
        "'" + (directory / "body").string() + "' '" + *request.valueForHeader("Content-Type") +
            "'");
    ASSERT_EQ(result.status, 0) << result.output;
    EXPECT_EQ(result.output, "title None text/plain " + KROHex(KROBytes("Gr\xC3\xBC\xC3\x9F")) +
                                 "\ncount None text/plain " + KROHex(KROBytes("-12")) +
                                 "\nratio None text/plain " + KROHex(KROBytes("0.25")) +
                                 "\nupload sound file.bin application/octet-stream " +
                                 KROHex(fileBytes) + "\nblob blob.txt application/octet-stream " +
                                 KROHex(blob) + "\n");
}
