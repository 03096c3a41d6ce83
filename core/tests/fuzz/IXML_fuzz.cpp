// The iXML reader on any bytes: the input is the chunk's document, read
// into metadata and labels, which are then written as a document and read
// again. Any crash, sanitizer report or leak is a finding.
#include <cstddef>
#include <cstdint>

#include "KROAudioFileChunk.h"
#include "KROAudioFileContent.h"

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    KROAudioFileChunk chunk;
    chunk.appendBytes(data, size);
    KROAudioFileContent content;
    content.setSampleRate(size % 2 == 0 ? 48000.0 : 0.0);
    content.parseIXMLChunk(chunk);
    KROAudioFileChunk written;
    content.appendIXMLToChunk(written);
    KROAudioFileContent again;
    again.setSampleRate(content.sampleRate());
    again.parseIXMLChunk(written);
    return 0;
}
