// The APEv2 reader on any bytes: the input is a file whose tag is looked for
// at its end, from the stream and from memory. Any crash, sanitizer report,
// leak or allocation beyond the file's size is a finding.
#include <sys/mman.h>
#include <unistd.h>

#include <cstddef>
#include <cstdint>
#include <string>

#include "KROAudioFileContent.h"

namespace {

class FuzzContent : public KROAudioFileContent {
public:
    using KROAudioFileContent::setFileSize;
};

// The file of the current input, in memory, reached by a path.
std::string inputPath(const std::uint8_t* data, std::size_t size) {
    static const int descriptor = ::memfd_create("ape", 0);
    if (::ftruncate(descriptor, 0) != 0 ||
        ::pwrite(descriptor, data, size, 0) != static_cast<ssize_t>(size)) {
        __builtin_trap();
    }
    return "/proc/self/fd/" + std::to_string(descriptor);
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    const std::string path = inputPath(data, size);
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
