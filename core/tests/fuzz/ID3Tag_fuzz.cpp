// The ID3v2 reader on any bytes: the input is a file whose tag is read from
// its start, from the stream and from memory, and whatever it yields is
// written out as a version 2.4 tag and read again. Any crash, sanitizer
// report, leak or allocation beyond the file's size is a finding.
#include <cstddef>
#include <cstdint>
#include <string>

#include "KROAudioFileChunk.h"
#include "KROAudioFileContent.h"
#include "KROFuzzInputFile.h"

namespace {

void readTag(const std::string& path, bool inMemory, KROAudioFileContent& content) {
    KROFileReader reader;
    if (!reader.initWithURL(path) || (inMemory && !reader.loadIntoMemory())) {
        return;
    }
    content.parseID3TagInFile(reader, 0);
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    const std::string path = KROFuzzInputPath(data, size);
    KROAudioFileContent content;
    readTag(path, false, content);
    readTag(path, true, content);
    if (!content.hasID3Metadata()) {
        return 0;
    }
    KROAudioFileChunk chunk;
    content.appendID3ToChunk(chunk);
    const std::string written = KROFuzzInputPath(chunk.data()->data(), chunk.data()->size());
    KROAudioFileContent again;
    readTag(written, false, again);
    return 0;
}
