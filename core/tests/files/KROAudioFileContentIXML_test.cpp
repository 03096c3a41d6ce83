// iXML written here (checked by Python's XML reader), as recorders write it, and malformed.
#include "KROAudioFileChunk.h"
#include "KROAudioTestSupport.h"
#include "KRODateText.h"
#include "KROTagTestSupport.h"

namespace {

using namespace std::string_literals;

constexpr double kRate = 48000.0;

// "type location length name" of each label.
std::vector<std::string> labelLines(const KROAudioFileContent& content) {
    std::vector<std::string> lines;
    for (const auto& label : content.labels()) {
        const KROPropertyList* name = label->valueForUndefinedKey("name");
        lines.push_back(label->type() + " " + std::to_string(label->location()) + " " +
                        std::to_string(label->length()) + " " +
                        (name ? *name->stringValue() : "-"));
    }
    return lines;
}

std::shared_ptr<KROAudioLabel> label(const char* type, double location, double length,
                                     std::optional<KROPropertyList> name,
                                     const char* locationType) {
    auto made = KROAudioLabel::labelOfType(type);
    made->setLocation(location);
    made->setLength(length);
    made->setValueForUndefinedKey(std::move(name), "name");
    made->setValueForUndefinedKey(KROPropertyList(locationType), "locationType");
    return made;
}

KROAudioFileChunk chunkOfText(std::string_view text) {
    KROAudioFileChunk chunk;
    chunk.appendString(text);
    return chunk;
}

std::shared_ptr<KROTagTestContent> readDocument(const KROAudioFileChunk& chunk) {
    auto content = std::make_shared<KROTagTestContent>();
    content->setSampleRate(kRate);
    content->parseIXMLChunk(chunk);
    return content;
}

std::string textOf(const KROAudioFileChunk& chunk) {
    return std::string(chunk.data()->begin(), chunk.data()->end());
}

// "well-formed" or "malformed", as Python's XML reader finds the document.
std::string strictReading(const KROAudioFileChunk& chunk) {
    KROTemporaryDirectory directory;
    KROWriteTestFile(directory / "ixml.xml", *chunk.data());
    return KRORunPythonScript(directory, R"(
import sys, xml.etree.ElementTree as tree
try:
    tree.fromstring(open(sys.argv[1], 'rb').read().rstrip(b'\0'))
    print('well-formed')
except tree.ParseError:
    print('malformed')
)",
                              (directory / "ixml.xml").string());
}

} // namespace

// Everything written comes back: production keys through USER, the take
// type, lists and dictionaries, the broadcast copy, and sync points.
TEST(KROAudioFileContentIXML, WrittenDocumentsReadBack) {
    KROTagTestContent content;
    content.setSampleRate(kRate);
    auto& metadata = content.metadata();
    const auto trackList = KROPropertyList(KROPropertyList::Array{
        KROPropertyList::Dictionary{{"channel_index", "1"}, {"name", "Boom"}},
        KROPropertyList::Dictionary{{"channel_index", "2"}, {"name", "Lav"}}});
    for (auto& [key, value] : KROPropertyList::Dictionary{
             {"scene", "12A"},
             {"take", "3"},
             {"takeType", KROPropertyList::Array{"DEFAULT", "CIRCLED"}},
             {"fullTitle", "Full Title"},
             {"director", "A Director"},
             {"soundMixerName", "A Mixer"},
             {"audioRecorderModel", "Recorder"},
             {"fileUID", "UID-1"},
             {"speed", KROPropertyList::Dictionary{{"master_speed", "48000/1001"}}},
             {"trackList", trackList},
             {"description", "Desc"},
             {"originator", "Orig"},
             {"originationDate", *kro::dateFromString("2024-05-17", "yyyy-MM-dd")},
             {"originationTime", *kro::dateFromString("13:14:15", "HH:mm:ss")},
             {"timeReference", 10.0},
             {"codingHistory", "A=PCM,F=48000"},
         }) {
        metadata.setObjectForKey(key, value);
    }
    const auto written = KRODescriptionsOf(metadata);
    metadata.setObjectForKey("smpteUMID", KROData{1, 2, 3});
    metadata.setObjectForKey("keyOfNoEntry", "not written");
    content.labels() = {label("sync", 1.5, 0, "Clap", "RELATIVE"),
                        label("event", 2.0, 0.5, std::nullopt, "RELATIVE"),
                        label("sync", 1.0, 0, "Upper", "ABSOLUTE"),
                        label("sync", 1.0, 0, "Lower", "absolute"),
                        label("marker", 4.0, 0, "Not a sync point", "RELATIVE")};
    KROAudioFileChunk chunk;
    content.appendIXMLToChunk(chunk);

    for (const char* key : {"description", "timeReference", "smpteUMID", "codingHistory"}) {
        EXPECT_FALSE(metadata.objectForKey(key)) << key;
    }
    const std::string text = textOf(chunk);
    EXPECT_EQ(text.size() % 2, 0u);
    EXPECT_EQ(text.substr(0, text.find_last_not_of('\0') + 1).substr(text.find("</BWFXML>")),
              "</BWFXML>");
    EXPECT_NE(text.find("<TAKE_TYPE>DEFAULT,CIRCLED</TAKE_TYPE>\r"), std::string::npos);
    EXPECT_NE(text.find("<BWF_TIME_REFERENCE_LOW>480000</BWF_TIME_REFERENCE_LOW>\r"),
              std::string::npos);
    EXPECT_NE(text.find("<BWF_UMID></BWF_UMID>\r"), std::string::npos);
    EXPECT_EQ(text.find("not written"), std::string::npos);
    EXPECT_EQ(strictReading(chunk), "well-formed\n");

    const auto readBack = readDocument(chunk);
    EXPECT_EQ(KRODescriptionsOf(readBack->metadata()), written);
    // An absolute point comes back at its place only when written as
    // "ABSOLUTE": the reader compares case and all, the writer does not.
    EXPECT_EQ(labelLines(*readBack), (std::vector<std::string>{"sync 1.500000 0.000000 Clap",
                                                               "event 2.000000 0.500000 Event 1",
                                                               "sync 1.000000 0.000000 Upper",
                                                               "sync 11.000000 0.000000 Lower"}));
}

// A document as a recorder writes it, version 2, padded with zeros: USER
// entries join the metadata, sync points become labels, the take flags the
// take type; keys no one renames stay in the recorder's lower-case form.
TEST(KROAudioFileContentIXML, ReadsAFieldRecorderDocument) {
    KROAudioFileChunk chunk;
    chunk.appendData(KROReadTestFile(std::filesystem::path(KRO_SOURCE_DIR) /
                                     "core/tests/fuzz/corpus/IXML_fuzz/recorder-v2.xml"));
    const auto content = readDocument(chunk);
    const KROPropertyList& metadata = content->metadata();
    EXPECT_EQ(*metadata.objectForKey("originationDate"),
              KROPropertyList(*kro::dateFromString("2024-05-17", "yyyy-MM-dd")));
    EXPECT_EQ(*metadata.objectForKey("originationTime"),
              KROPropertyList(*kro::dateFromString("13:14:15", "HH:mm:ss")));
    auto descriptions = KRODescriptionsOf(metadata);
    descriptions.erase("originationDate");
    descriptions.erase("originationTime");
    EXPECT_EQ(
        descriptions,
        (std::map<std::string, std::string>{
            {"description", "sSCENE=12A"},
            {"timeReference", "90000"},
            {"smpteUMID", "{length = 8, bytes = 0x3036304132423334}"},
            {"project", "Feature"},
            {"scene", "replaced by USER"},
            {"take", "3"},
            {"no_good", "TRUE"},
            {"takeType", "(\n    DEFAULT,\n    PICKUP,\n    CIRCLED\n)"},
            {"fileUID", "RECA1B2C3"},
            {"ubits", "00000000"},
            {"speed", "{\n    master_speed = 25/1;\n}"},
            {"trackList", "(\n    {\n        channel_index = 1;\n        name = Boom;\n    },"
                          "\n    {\n        channel_index = 2;\n        name = Lav;\n    }\n)"},
            {"fullTitle", "The Film"},
            {"director", "A Director"},
            {"audioRecorderModel", "Recorder 8"},
        }));
    EXPECT_EQ(labelLines(*content), (std::vector<std::string>{
                                        "sync 2.000000 0.000000 Sync 1",
                                        "event -521.514667 0.500000 Event 1",
                                        "sync 1.000000 0.000000 Clap",
                                    }));
    const auto& slate = content->labels()[1];
    EXPECT_EQ(*slate->valueForUndefinedKey("function"), KROPropertyList("SLATE"));
    EXPECT_EQ(*slate->valueForUndefinedKey("locationType"), KROPropertyList("ABSOLUTE"));
}

// Version 1 documents keep USER as the plain text it was then.
TEST(KROAudioFileContentIXML, Version1KeepsUserText) {
    const auto content =
        readDocument(chunkOfText("<BWFXML><IXML_VERSION>1.5</IXML_VERSION><USER>free text</USER>"
                                 "<TAKE_TYPE></TAKE_TYPE></BWFXML>"));
    EXPECT_EQ(KRODescriptionsOf(content->metadata()),
              (std::map<std::string, std::string>{{"user", "free text"}}));
}

// Malformed documents set nothing and never fail.
TEST(KROAudioFileContentIXML, MalformedDocumentsSetNothing) {
    KROTagTestContent ampersand;
    ampersand.metadata().setObjectForKey("scene", "Cats & Dogs");
    ampersand.metadata().setObjectForKey("take", "1");
    KROAudioFileChunk written;
    ampersand.appendIXMLToChunk(written);
    EXPECT_EQ(strictReading(written), "malformed\n");
    std::string deep;
    for (int i = 0; i < 400; ++i) {
        deep += "<SPEED>";
    }
    const std::pair<const char*, std::string> cases[] = {
        {"an unescaped ampersand", textOf(written)},
        {"a truncated document", "<BWFXML><IXML_VERSION>2.0</IXML_VERSION><SCENE>1</SC"},
        {"no XML at all", "\x01\x02garbage\xFF"},
        {"nesting past the limit", "<BWFXML><SCENE>1</SCENE>" + deep},
        {"an empty chunk", ""},
    };
    for (const auto& [what, text] : cases) {
        SCOPED_TRACE(what);
        const auto content = readDocument(chunkOfText(text));
        EXPECT_EQ(content->metadata().count(), 0u);
        EXPECT_TRUE(content->labels().empty());
    }
}

// The element forms of values: numbers go out as 32-bit "%d", lists with
// their count, and kinds that have no form as an empty element.
TEST(KROAudioFileContentIXML, ValueElements) {
    const std::pair<KROPropertyList, std::string> cases[] = {
        {KROPropertyList(std::int64_t{0x80000005}), "<KEY_LIST>-2147483643</KEY_LIST>\r"},
        {KROPropertyList(2.9), "<KEY_LIST>2</KEY_LIST>\r"},
        {KROPropertyList(KROPropertyList::Array{"a", "b"}),
         "<KEY_LIST><KEY_COUNT>2</KEY_COUNT>\r<KEY>a</KEY>\r<KEY>b</KEY>\r</KEY_LIST>\r"},
        {KROPropertyList(KROPropertyList::Dictionary{{"z", "1"}, {"a", "2"}}),
         "<KEY_LIST><Z>1</Z>\r<A>2</A>\r</KEY_LIST>\r"},
        {KROPropertyList(KROData{1}), "<KEY_LIST></KEY_LIST>\r"},
    };
    for (const auto& [value, element] : cases) {
        SCOPED_TRACE(element);
        std::string content;
        KROAudioFileContent::appendIXMLValue(value, "key_list", content);
        EXPECT_EQ(content, element);
    }
}

TEST(KROAudioFileContentIXML, CamelCaseOfSnakeCase) {
    const std::pair<const char*, const char*> cases[] = {
        {"audio_recorder_model", "audioRecorderModel"},
        {"file_uid", "fileUid"},
        {"a__b", "aB"},
        {"_lead", "Lead"},
        {"trail_", "trail"},
        {"plain", "plain"},
    };
    for (const auto& [snake, camel] : cases) {
        EXPECT_EQ(KROAudioFileContent::camelCaseForSnakeCase(snake), camel);
    }
}

// The test goes by the table's ixml names, so a production key, whose name
// differs from its key, does not count; a sync or event label does.
TEST(KROAudioFileContentIXML, HasIXMLMetadata) {
    KROTagTestContent content;
    EXPECT_FALSE(content.hasIXMLMetadata());
    content.metadata().setObjectForKey("fullTitle", "Title");
    content.labels().push_back(KROAudioLabel::labelOfType("marker"));
    EXPECT_FALSE(content.hasIXMLMetadata());
    content.metadata().setObjectForKey("scene", "1");
    EXPECT_TRUE(content.hasIXMLMetadata());
    content.metadata().removeObjectForKey("scene");
    content.labels().push_back(KROAudioLabel::labelOfType("event"));
    EXPECT_TRUE(content.hasIXMLMetadata());
}

// In a WAVE file the tag and the document have chunks of their own; the
// broadcast keys stay for the document's BEXT block, and the tag, read after
// the other chunks, keeps its frame's terminator.
TEST(KROAudioFileContentIXML, WAVEFilesCarryTheDocumentAndTheTag) {
    KROTemporaryDirectory directory;
    const std::filesystem::path path = directory.path() / "tagged.wav";
    const KROPropertyList written = KROPropertyList::Dictionary{
        {"artist", "Ensemble"}, {"scene", "12A"}, {"description", "room mic"}};
    writeWAVE(path, *KROAudioBufferList::bufferListWithChannels(1, 4),
              [&](KROAudioFileWAVEContent& content) { content.metadata() = written; });
    std::ifstream file(path, std::ios::binary);
    const std::string bytes((std::istreambuf_iterator<char>(file)), {});
    for (const char* text : {"ID3 ", "iXML", "<BWF_DESCRIPTION>room mic"}) {
        EXPECT_NE(bytes.find(text), std::string::npos) << text;
    }
    const auto content = parsedWAVE(path);
    ASSERT_TRUE(content);
    expectMetadata(*content, KROPropertyList::Dictionary{{"artist", "Ensemble\0"s},
                                                         {"scene", "12A"},
                                                         {"description", "room mic"}});
}
