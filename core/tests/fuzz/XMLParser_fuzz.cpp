// KROXMLParser on random bytes: the first chooses the options, the rest is
// the document. The element lists are the iXML reader's, plus short names
// that random input hits often.
#include <cstddef>
#include <cstdint>

#include "KROError.h"
#include "KROXMLParser.h"

namespace {

void configure(KROXMLParser& parser, std::uint8_t options) {
    parser.setDictionaryElements({"BWFXML", "SPEED", "HISTORY", "FILE_SET", "TRACK", "d"});
    parser.setArrayElements({"TRACK_LIST", "SYNC_POINT_LIST", "a"});
    parser.setIgnoredElements({"TRACK_COUNT", "i"});
    parser.setIgnoredContainers({"STEINBERG", "LOCATION", "c"});
    parser.setMakeKeysLowercase((options & 1) != 0);
    parser.setRootClass((options & 2) != 0 ? KROPropertyList::Type::Array
                                           : KROPropertyList::Type::Dictionary);
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    if (size == 0) {
        return 0;
    }
    const auto parser = KROXMLParser::parser();
    configure(*parser, data[0]);
    const KROData document(data + 1, data + size);
    KROErrorPtr error;
    const auto root = parser->objectForData(document, &error);
    volatile std::size_t sink = root ? root->toXML().size() : 0;
    sink = sink + (error ? error->description().size() : 0);
    // A second run on the same parser must not depend on the first.
    parser->objectForData(document, nullptr);
    return 0;
}
