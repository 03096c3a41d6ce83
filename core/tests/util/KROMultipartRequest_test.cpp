// Multipart form requests: exact bodies, read back by Python's email package.
#include <gtest/gtest.h>

#include "KROMultipartRequest.h"
#include "KROScratchDirectory.h"
#include "KROTestOracles.h"

namespace {

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

// Each field by its kind, in order: text, a file by name and bytes, data as
// "<key>.txt", anything else as its boundary alone.
TEST(KROMultipartRequest, TheBodyHoldsEachFieldByItsKind) {
    KROScratchDirectory directory;
    const std::string wave("RIFF\0\xFF\r\n--0x", 11);
    KROWriteFile(directory / "take 1.wav", wave);
    const auto request = KROMultipartRequest::requestWithURL(
        "https://example.org/upload", {{"title", std::string("Gr\u00fc\u00dfe")},
                                       {"rate", std::int64_t{-44100}},
                                       {"gain", 0.25},
                                       {"file", directory / "take 1.wav"},
                                       {"missing", std::filesystem::path("/nonexistent/x.bin")},
                                       {"notes", KROBytes("xy")},
                                       {"other", KROMultipartRequest::OtherKind{}}});
    EXPECT_EQ(request.url, "https://example.org/upload");
    EXPECT_EQ(request.method, "POST");
    ASSERT_NE(request.valueForHeader("Content-Type"), nullptr);
    EXPECT_EQ(*request.valueForHeader("Content-Type"),
              "multipart/form-data; boundary=0xKhTmLbOuNdArY");
    const std::string body(request.body.begin(), request.body.end());
    EXPECT_EQ(body, field("title", "Gr\u00fc\u00dfe") + field("rate", "-44100") +
                        field("gain", "0.25") + file("file", "take 1.wav", wave) +
                        file("missing", "x.bin", "") + file("notes", "notes.txt", "xy") +
                        kBoundary + "\r\n--0xKhTmLbOuNdArY--\r\n");
    KROPropertyList form;
    form.setObjectForKey("z", "last");
    form.setObjectForKey("flag", true);
    form.setObjectForKey("list", KROPropertyList::array());
    const auto fromList = KROMultipartRequest::requestWithURL("http://h/", form).body;
    EXPECT_EQ(std::string(fromList.begin(), fromList.end()),
              field("z", "last") + field("flag", "1") + kBoundary + "\r\n--0xKhTmLbOuNdArY--\r\n");
    KROWriteFile(directory / "body", body);
    const auto python = KRORunPython(
        "import sys, email\n"
        "from email import policy\n"
        "head = b'Content-Type: multipart/form-data; boundary=0xKhTmLbOuNdArY\\r\\n\\r\\n'\n"
        "message = email.message_from_bytes(head + open(sys.argv[1], 'rb').read(),"
        " policy=policy.HTTP)\n"
        "for part in list(message.iter_parts())[:6]:\n"
        "    print(part.get_param('name', header='content-disposition'), part.get_filename(),"
        " part.get_content_type(), part.get_payload(decode=True).hex())\n",
        "'" + (directory / "body").string() + "'");
    EXPECT_EQ(python.output, "title None text/plain " + KROHex(KROBytes("Gr\u00fc\u00dfe")) +
                                 "\nrate None text/plain " + KROHex(KROBytes("-44100")) +
                                 "\ngain None text/plain " + KROHex(KROBytes("0.25")) +
                                 "\nfile take 1.wav application/octet-stream " +
                                 KROHex(KROBytes(wave)) +
                                 "\nmissing x.bin application/octet-stream " +
                                 "\nnotes notes.txt application/octet-stream 7879\n");
}
