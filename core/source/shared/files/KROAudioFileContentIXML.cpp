// iXML of KROAudioFileContent: the production metadata, sync points and
// broadcast copy that field recorders keep in an 'iXML' chunk.
#include <algorithm>
#include <cmath>
#include <limits>
#include <tuple>

#include "KROAudioFileChunk.h"
#include "KROAudioFileContent.h"
#include "KROAudioMetadataTable.h"
#include "KRODateText.h"
#include "KROError.h"
#include "KROStringHelpers.h"
#include "KROStringWithFormat.h"
#include "KROTextNumbers.h"
#include "KROXMLParser.h"

namespace {

using Dictionary = KROPropertyList;

// The keys that go into the document's USER block.
constexpr std::string_view kUserKeys[] = {
    "fullTitle",
    "director",
    "productionName",
    "productionAddress",
    "productionEmail",
    "productionPhone",
    "productionNote",
    "soundMixerName",
    "soundMixerAddress",
    "soundMixerEmail",
    "soundMixerPhone",
    "soundMixerNote",
    "audioRecorderModel",
    "audioRecorderSerialNumber",
    "audioRecorderFirmware",
};

// The broadcast keys that the document's BEXT block carries.
constexpr std::string_view kBroadcastKeys[] = {
    "description",     "originator",    "originatorReference", "originationDate",
    "originationTime", "timeReference", "smpteUMID",           "codingHistory",
};

// The recorder's snake-case keys that reach metadata in camel case.
constexpr std::string_view kCamelCaseKeys[] = {
    "audio_recorder_model",
    "audio_recorder_serial_number",
    "audio_recorder_firmware",
    "full_title",
    "file_set",
    "production_name",
    "production_address",
    "production_email",
    "production_phone",
    "production_note",
    "sound_mixer_name",
    "sound_mixer_address",
    "sound_mixer_email",
    "sound_mixer_phone",
    "sound_mixer_note",
    "track_list",
};

// The take flags that add to the take type. Kept: three of them are looked
// up in camel case, which a lower-cased document never holds, so only
// "circled" has ever counted.
constexpr std::pair<std::string_view, std::string_view> kTakeFlags[] = {
    {"circled", "CIRCLED"},
    {"noGood", "NO_GOOD"},
    {"falseStart", "FALSE_START"},
    {"wildTrack", "WILD_TRACK"},
};

constexpr const char* kDatePattern = "yyyy-MM-dd";
constexpr const char* kTimePattern = "HH:mm:ss";

std::string uppercaseASCII(std::string_view text) {
    std::string upper(text);
    std::transform(upper.begin(), upper.end(), upper.begin(),
                   [](char c) { return c >= 'a' && c <= 'z' ? static_cast<char>(c - 32) : c; });
    return upper;
}

bool contains(const auto& list, std::string_view value) {
    return std::find(std::begin(list), std::end(list), value) != std::end(list);
}

// A number as the 32-bit integer that "%d" writes: integers wrap, reals are
// cut toward zero, and a real past the 64-bit range gives the lowest value.
std::int32_t int32OfNumber(const KROPropertyList& number) {
    if (const double* real = number.realValue()) {
        return std::abs(*real) < 9.2e18
                   ? static_cast<std::int32_t>(static_cast<std::int64_t>(*real))
                   : std::numeric_limits<std::int32_t>::min();
    }
    return static_cast<std::int32_t>(number.longValue());
}

// Frames as an unsigned count, cut toward zero; nothing below zero.
std::uint64_t truncatedFrames(double frames) {
    if (!(frames > 0)) {
        return 0;
    }
    return frames < 1.8e19 ? static_cast<std::uint64_t>(frames)
                           : std::numeric_limits<std::uint64_t>::max();
}

std::int64_t roundedFrames(double frames) {
    return std::abs(frames) < 9.2e18 ? static_cast<std::int64_t>(std::llround(frames)) : 0;
}

const std::string* stringForKey(const KROPropertyList& dictionary, std::string_view key) {
    const KROPropertyList* value = dictionary.objectForKey(key);
    return value ? value->stringValue() : nullptr;
}

std::int64_t integerForKey(const KROPropertyList& dictionary, std::string_view key) {
    const std::string* text = stringForKey(dictionary, key);
    return text ? kro::integerValue(*text) : 0;
}

void renameKey(KROPropertyList& dictionary, std::string_view from, std::string_view to) {
    if (const KROPropertyList* value = dictionary.objectForKey(from)) {
        KROPropertyList moved = *value;
        dictionary.removeObjectForKey(from);
        dictionary.setObjectForKey(to, std::move(moved));
    }
}

// ------------------------------------------------------------------ writing

KROPropertyList syncPointOfLabel(const KROAudioLabel& label, double rate, double timeReference) {
    Dictionary point;
    const KROPropertyList* name = label.valueForUndefinedKey("name");
    const KROPropertyList* function = label.valueForUndefinedKey("function");
    const KROPropertyList* locationType = label.valueForUndefinedKey("locationType");
    const bool isAbsolute = locationType && locationType->stringValue() &&
                            kro::lowercaseASCII(*locationType->stringValue()) == "absolute";
    const auto frame = static_cast<std::uint64_t>(
        roundedFrames((label.location() + (isAbsolute ? timeReference : 0.0)) * rate));
    for (const auto& [key, value] :
         {std::pair{"SYNC_POINT_COMMENT", name}, std::pair{"SYNC_POINT_FUNCTION", function},
          std::pair{"SYNC_POINT_TYPE", locationType}}) {
        if (value) {
            point.setObjectForKey(key, *value);
        }
    }
    point.setObjectForKey("SYNC_POINT_HIGH", static_cast<std::int64_t>(frame >> 32));
    // Kept: the low half goes out through "%d", negative at 2^31 and above.
    point.setObjectForKey("SYNC_POINT_LOW", static_cast<std::int64_t>(frame & 0xFFFFFFFF));
    point.setObjectForKey("SYNC_POINT_EVENT_DURATION", roundedFrames(label.length() * rate));
    return point;
}

bool isSyncLabel(const KROAudioLabel& label) {
    return label.type() == "sync" || label.type() == "event";
}

// A date field of the broadcast block: a date in the pattern, anything else
// as it stands.
KROPropertyList dateFieldValue(const KROPropertyList& value, const char* pattern) {
    if (const KRODate* date = value.dateValue()) {
        return kro::stringFromDate(*date, pattern);
    }
    return value;
}

void appendSyncPoints(const KROAudioFileContent& file, std::string& content) {
    const auto& labels = file.labels();
    if (std::none_of(labels.begin(), labels.end(),
                     [](const auto& label) { return isSyncLabel(*label); })) {
        return;
    }
    const KROPropertyList* timeReference = file.metadata().objectForKey("timeReference");
    const double reference = timeReference ? timeReference->doubleValue() : 0.0;
    content += "<SYNC_POINT_LIST>\r";
    for (const auto& label : labels) {
        if (isSyncLabel(*label)) {
            KROAudioFileContent::appendIXMLValue(
                syncPointOfLabel(*label, file.sampleRate(), reference), "SYNC_POINT", content);
        }
    }
    content += "</SYNC_POINT_LIST>\r";
}

// The BEXT block, when any broadcast key is present; the broadcast keys
// then leave metadata.
void appendBroadcastBlock(KROAudioFileContent& file, std::string& content) {
    KROPropertyList& metadata = file.metadata();
    const auto has = [&metadata](std::string_view key) { return metadata.objectForKey(key); };
    if (std::none_of(std::begin(kBroadcastKeys), std::end(kBroadcastKeys), has)) {
        return;
    }
    content += "<BEXT>\r";
    KROAudioFileContent::appendIXMLValue("1.0", "bwf_version", content);
    const auto append = [&](std::string_view key, const char* element, auto transform) {
        if (const KROPropertyList* value = metadata.objectForKey(key)) {
            KROAudioFileContent::appendIXMLValue(transform(*value), element, content);
        }
    };
    const auto asItIs = [](const KROPropertyList& value) { return value; };
    append("description", "bwf_description", asItIs);
    append("originator", "bwf_originator", asItIs);
    append("originatorReference", "bwf_originator_reference", asItIs);
    append("originationDate", "bwf_origination_date",
           [](const KROPropertyList& value) { return dateFieldValue(value, kDatePattern); });
    append("originationTime", "bwf_origination_time",
           [](const KROPropertyList& value) { return dateFieldValue(value, kTimePattern); });
    if (const KROPropertyList* timeReference = metadata.objectForKey("timeReference")) {
        const std::uint64_t frames =
            truncatedFrames(timeReference->doubleValue() * file.sampleRate());
        KROAudioFileContent::appendIXMLValue(std::to_string(frames & 0xFFFFFFFF),
                                             "bwf_time_reference_low", content);
        KROAudioFileContent::appendIXMLValue(std::to_string(frames >> 32),
                                             "bwf_time_reference_high", content);
    }
    // The UMID is a data block, which no element form writes: it stays empty.
    append("smpteUMID", "bwf_umid", asItIs);
    append("codingHistory", "bwf_coding_history", asItIs);
    content += "</BEXT>\r";
    for (const std::string_view key : kBroadcastKeys) {
        metadata.removeObjectForKey(key);
    }
}

// Seconds of a frame count at the file's rate; a file without a rate has
// no times.
double secondsOfFrames(double frames, double rate) {
    return rate > 0 ? frames / rate : 0.0;
}

// Moves the BEXT block into the broadcast keys of metadata.
void takeBroadcastBlock(KROPropertyList& document, KROAudioFileContent& file) {
    const KROPropertyList* block = document.objectForKey("bext");
    if (!block || !block->isDictionary()) {
        document.removeObjectForKey("bext");
        return;
    }
    const KROPropertyList bext = *block;
    document.removeObjectForKey("bext");
    KROPropertyList& metadata = file.metadata();
    for (const auto& [element, key] :
         {std::pair{"bwf_description", "description"}, std::pair{"bwf_originator", "originator"},
          std::pair{"bwf_originator_reference", "originatorReference"},
          std::pair{"bwf_coding_history", "codingHistory"}}) {
        if (const std::string* text = stringForKey(bext, element)) {
            metadata.setObjectForKey(key, *text);
        }
    }
    for (const auto& [element, key, pattern] :
         {std::tuple{"bwf_origination_date", "originationDate", kDatePattern},
          std::tuple{"bwf_origination_time", "originationTime", kTimePattern}}) {
        const std::string* text = stringForKey(bext, element);
        if (const auto date = text ? kro::dateFromString(*text, pattern) : std::nullopt) {
            metadata.setObjectForKey(key, *date);
        }
    }
    const std::uint64_t frames =
        (static_cast<std::uint64_t>(integerForKey(bext, "bwf_time_reference_high")) << 32) +
        static_cast<std::uint64_t>(integerForKey(bext, "bwf_time_reference_low"));
    if (frames != 0) {
        metadata.setObjectForKey("timeReference",
                                 secondsOfFrames(static_cast<double>(frames), file.sampleRate()));
    }
    if (const std::string* umid = stringForKey(bext, "bwf_umid")) {
        metadata.setObjectForKey("smpteUMID", KROData(umid->begin(), umid->end()));
    }
}

// Makes a "sync" or "event" label of each sync point.
void takeSyncPoints(KROPropertyList& document, KROAudioFileContent& file) {
    const KROPropertyList* list = document.objectForKey("sync_point_list");
    const KROPropertyList points = list && list->isArray() ? *list : KROPropertyList::array();
    document.removeObjectForKey("sync_point_list");
    const double rate = file.sampleRate();
    const KROPropertyList* timeReference = file.metadata().objectForKey("timeReference");
    std::int64_t syncs = 0;
    std::int64_t events = 0;
    for (const KROPropertyList& point : *points.arrayValue()) {
        if (!point.isDictionary()) {
            continue;
        }
        // The halves are added as the recorder wrote them, a negative low
        // half included.
        const auto frame = static_cast<std::int64_t>(
            (static_cast<std::uint64_t>(integerForKey(point, "sync_point_high")) << 32) +
            static_cast<std::uint64_t>(integerForKey(point, "sync_point_low")));
        double location = secondsOfFrames(static_cast<double>(frame), rate);
        const std::string* type = stringForKey(point, "sync_point_type");
        // Kept: the comparison is case-blind on writing but exact here.
        if (type && *type == "ABSOLUTE") {
            location -= timeReference ? timeReference->doubleValue() : 0.0;
        }
        const double length = secondsOfFrames(
            static_cast<double>(integerForKey(point, "sync_point_event_duration")), rate);
        const bool isEvent = length > 0;
        auto label = KROAudioLabel::labelOfType(isEvent ? "event" : "sync");
        label->setLocation(location);
        label->setLength(length);
        const std::string* comment = stringForKey(point, "sync_point_comment");
        label->setValueForUndefinedKey(
            comment ? *comment
                    : KROStringWithFormat(isEvent ? "Event %ld" : "Sync %ld",
                                          {KROFormatArgument(++(isEvent ? events : syncs))}),
            "name");
        for (const auto& [element, key] : {std::pair{"sync_point_function", "function"},
                                           std::pair{"sync_point_type", "locationType"}}) {
            const KROPropertyList* value = point.objectForKey(element);
            label->setValueForUndefinedKey(value ? std::optional(*value) : std::nullopt, key);
        }
        file.labels().push_back(std::move(label));
    }
}

// Gathers take_type and the take flags into the array takeType.
void takeTakeType(KROPropertyList& document) {
    KROPropertyList types = KROPropertyList::array();
    if (const std::string* text = stringForKey(document, "take_type"); text && !text->empty()) {
        for (std::size_t start = 0;;) {
            const std::size_t comma = text->find(',', start);
            types.addObject(text->substr(start, comma - start));
            if (comma == std::string::npos) {
                break;
            }
            start = comma + 1;
        }
        document.removeObjectForKey("take_type");
    }
    for (const auto& [key, flag] : kTakeFlags) {
        const std::string* value = stringForKey(document, key);
        const auto& present = *types.arrayValue();
        if (value && *value == "TRUE" &&
            std::find(present.begin(), present.end(), KROPropertyList(std::string(flag))) ==
                present.end()) {
            types.addObject(std::string(flag));
        }
        document.removeObjectForKey(key);
    }
    if (types.count() > 0) {
        document.setObjectForKey("takeType", std::move(types));
    }
}

} // namespace

bool KROAudioFileContent::hasIXMLMetadata() const {
    if (const auto table = KROAudioMetadataTable::load()) {
        for (const auto& entry : table->entries()) {
            const std::string* name = entry.nameForFormat("ixml");
            // Kept: the test goes by the ixml name, while writing goes by the
            // key, so an entry whose two differ counts only under its name.
            if (name && metadata().objectForKey(name->empty() ? entry.key : *name)) {
                return true;
            }
        }
    }
    return std::any_of(labels().begin(), labels().end(),
                       [](const auto& label) { return isSyncLabel(*label); });
}

void KROAudioFileContent::appendIXMLValue(const KROPropertyList& value, std::string_view key,
                                          std::string& content) {
    // Kept: text is not escaped, so a value holding "<" or "&" makes the
    // document malformed; the chunk holds what the host gave.
    const std::string tag = uppercaseASCII(key);
    content.append("<").append(tag).append(">");
    switch (value.type()) {
    case KROPropertyList::Type::String:
        content += *value.stringValue();
        break;
    case KROPropertyList::Type::Integer:
    case KROPropertyList::Type::Real:
    case KROPropertyList::Type::Boolean:
        content += std::to_string(int32OfNumber(value));
        break;
    case KROPropertyList::Type::Dictionary:
        for (const auto& [childKey, child] : *value.dictionaryValue()) {
            appendIXMLValue(child, childKey, content);
        }
        break;
    case KROPropertyList::Type::Array:
        if (key == "take_type") {
            for (std::size_t i = 0; i < value.count(); ++i) {
                content.append(i > 0 ? "," : "").append(value.objectAtIndex(i)->description());
            }
        } else {
            const std::string base(
                key.substr(0, key.size() - std::min<std::size_t>(5, key.size())));
            appendIXMLValue(KROStringWithFormat("%ld", {KROFormatArgument(value.count())}),
                            base + "_COUNT", content);
            for (const KROPropertyList& element : *value.arrayValue()) {
                appendIXMLValue(element, base, content);
            }
        }
        break;
    default:
        break;
    }
    content.append("</").append(tag).append(">\r");
}

void KROAudioFileContent::appendIXMLToChunk(KROAudioFileChunk& chunk) {
    std::string content = "<?xml version=\"1.0\" encoding=\"UTF-8\"?>\r<BWFXML>\r"
                          "<IXML_VERSION>2.0</IXML_VERSION>\r";
    Dictionary user;
    if (const auto table = KROAudioMetadataTable::load()) {
        for (const auto& entry : table->entries()) {
            const std::string* name = entry.nameForFormat("ixml");
            const KROPropertyList* value = metadata().objectForKey(entry.key);
            if (!name || !value) {
                continue;
            }
            if (contains(kUserKeys, entry.key)) {
                user.setObjectForKey(*name, *value);
            } else {
                appendIXMLValue(*value, name->empty() ? entry.key : *name, content);
            }
        }
    }
    if (user.count() > 0) {
        appendIXMLValue(user, "user", content);
    }
    appendSyncPoints(*this, content);
    appendBroadcastBlock(*this, content);
    content += "</BWFXML>";
    chunk.appendString(content);
    chunk.appendPadByte();
}

// ------------------------------------------------------------------ reading

void KROAudioFileContent::parseIXMLChunk(const KROAudioFileChunk& chunk) {
    KROData bytes = chunk.dataAtPosition(0, chunk.dataLength()).value_or(KROData());
    // Recorders reserve room for the document and fill what is left with
    // zeros, which no XML text holds: the document ends at the first.
    bytes.erase(std::find(bytes.begin(), bytes.end(), std::uint8_t{0}), bytes.end());
    const auto parser = KROXMLParser::parser();
    parser->setArrayElements({"SYNC_POINT_LIST", "TRACK_LIST"});
    parser->setIgnoredElements({"BWFXML", "TRACK_COUNT", "SYNC_POINT_COUNT"});
    parser->setIgnoredContainers({"STEINBERG"});
    parser->setMakeKeysLowercase(true);
    // A document that cannot be parsed reads as an empty one.
    const auto parse = [&parser, &bytes]() {
        KROErrorPtr error;
        const auto root = parser->objectForData(bytes, &error);
        return root && !error && root->isDictionary() ? *root : KROPropertyList::dictionary();
    };
    const KROPropertyList firstReading = parse();
    const std::string* versionText = stringForKey(firstReading, "ixml_version");
    const bool isVersion1 = versionText && !versionText->empty() && versionText->front() == '1';
    std::vector<std::string> dictionaries = {"SPEED",    "TRACK",      "HISTORY",
                                             "FILE_SET", "SYNC_POINT", "BEXT"};
    if (!isVersion1) {
        dictionaries.emplace_back("USER");
    }
    parser->setDictionaryElements(std::move(dictionaries));
    KROPropertyList document = parse();
    document.removeObjectForKey("ixml_version");
    takeBroadcastBlock(document, *this);
    takeSyncPoints(document, *this);
    if (!isVersion1) {
        if (const KROPropertyList* user = document.objectForKey("user");
            user && user->isDictionary()) {
            const KROPropertyList entries = *user;
            document.removeObjectForKey("user");
            for (const auto& [key, value] : *entries.dictionaryValue()) {
                document.setObjectForKey(key, value);
            }
        }
    }
    takeTakeType(document);
    for (const std::string_view key : kCamelCaseKeys) {
        replaceSnakeCaseKey(key, document);
    }
    renameKey(document, "file_uid", "fileUID");
    renameKey(document, "director_name", "director");
    for (const auto& [key, value] : *document.dictionaryValue()) {
        metadata().setObjectForKey(key, value);
    }
}

void KROAudioFileContent::replaceSnakeCaseKey(std::string_view key, KROPropertyList& dictionary) {
    renameKey(dictionary, key, camelCaseForSnakeCase(key));
}

std::string KROAudioFileContent::camelCaseForSnakeCase(std::string_view snakeCase) {
    std::string camelCase;
    bool upperNext = false;
    for (const char c : snakeCase) {
        if (c == '_') {
            upperNext = true;
        } else {
            camelCase += upperNext && c >= 'a' && c <= 'z' ? static_cast<char>(c - 32) : c;
            upperNext = false;
        }
    }
    return camelCase;
}
