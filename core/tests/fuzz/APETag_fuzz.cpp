// The APEv2 reader on any bytes: the input is a file whose tag is looked for
// at its end, from the stream and from memory. Any crash, sanitizer report,
// leak or allocation beyond the file's size is a finding.
#include <cstddef>
#include <cstdint>
#include <string>

#include "KROAudioFileContent.h"
#include "KROFuzzInputFile.h"

namespace {

class FuzzContent : public KROAudioFileContent {
public:
    using KROAudioFileContent::setFileSize;
};

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    const std::string path = KROFuzzInputPath(data, size);
    for (const bool inMemory : {false, true}) {
        KROFileReader reader;
        if (!reader.initWithURL(path) || (inMemory && !reader.loadIntoMemory())) {
            return 0;
        }
        FuzzContent content;
        content.setFileSize(size);
        content.parseAPETagInFile(reader);
    }
    return 0;
}
