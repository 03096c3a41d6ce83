// The XML reader: element lists, error codes, hostile documents, Python's xml.etree.
#include <gtest/gtest.h>

#include <random>

#include "KROError.h"
#include "KROScratchDirectory.h"
#include "KROTestOracles.h"
#include "KROXMLParser.h"

namespace {

// A tree as short text: {key=value,...} and [value,...], "none" for no tree.
std::string text(const KROPropertyList* value) {
    if (!value || value->stringValue()) {
        return value ? *value->stringValue() : "none";
    }
    std::string out;
    if (const auto* array = value->arrayValue()) {
        for (const auto& item : *array) {
            out += (out.empty() ? "" : ",") + text(&item);
        }
        return "[" + out + "]";
    }
    for (const auto& [key, item] : *value->dictionaryValue()) {
        out += (out.empty() ? "" : ",") + key + "=" + text(&item);
    }
    return "{" + out + "}";
}

// What a parser makes of a document, with the error code or -1.
std::string read(KROXMLParser& parser, std::string_view document) {
    KROErrorPtr error;
    const auto root = parser.objectForData(KROBytes(document), &error);
    return text(root.get()) + " " + std::to_string(error ? error->code() : -1);
}

} // namespace

// Leaves go into the current container, trimmed, empty ones dropped, a later
// one replacing an earlier one; the lists are tested in the order ignored,
// dictionary, array, ignored container; text gathered before an ignored
// container began is kept; keys may be lower-cased and the root an array.
TEST(KROXMLParser, TheElementListsSteerTheTree) {
    using Type = KROPropertyList::Type;
    const std::tuple<Type, bool, const char*, const char*> cases[] = {
        {Type::Dictionary, false, "<d><a> one </a><b>two</b><c> </c><a>1</a></d>", "{a=1,b=two}"},
        {Type::Dictionary, false, "<r><D><z>4</z></D><D><w>5</w></D></r>", "{D={w=5}}"},
        {Type::Dictionary, false,
         "<r><A><x>1</x></A><B><y>2</y></B><C><z>3</z></C><E><w>4</w></E></r>",
         "{x=1,B={y=2},C={z=3}}"},
        {Type::Dictionary, false,
         "<r><a>kept<S>lost<S>deep</S>lost</S></a><b><S>x</S>after</b></r>", "{a=kept,b=after}"},
        {Type::Dictionary, false,
         "<r><a>\r\n\t\xC2\xA0 x \xE3\x80\x80\xE2\x80\xA8</a><b>\xC2\xA0</b></r>", "{a=x}"},
        {Type::String, true, "<R><Name>A</Name><NAME>B</NAME><L><Item>1</Item></L></R>",
         "{name=B,l=[1]}"},
        {Type::Array, false, "<d><a>1</a><a>2</a><L><b>3</b></L></d>", "[1,2,[3]]"},
    };
    for (const auto& [root, lowercase, document, tree] : cases) {
        auto parser = KROXMLParser::parser();
        parser->setIgnoredElements({"A"});
        parser->setDictionaryElements({"A", "B", "C", "D"});
        parser->setArrayElements({"B", "C", "L"});
        parser->setIgnoredContainers({"C", "E", "S"});
        parser->setRootClass(root);
        parser->setMakeKeysLowercase(lowercase);
        EXPECT_EQ(read(*parser, document), std::string(tree) + " -1");
    }
}

// Malformed documents give their code, a partial tree, no trace of the last parse.
TEST(KROXMLParser, MalformedDocumentsGiveThePlatformCodes) {
    const std::pair<std::string_view, const char*> cases[] = {
        {"", "none 4"},
        {"not xml", "none 4"},
        {"<r><a>1</b></r>", "{} 76"},
        {"<r/><s/>", "{} 86"},
        {"<r a='1' a='2'/>", "none 42"},
        {"<r>&nope;</r>", "{} 26"},
        {"<r>&#0;</r>", "{} 8"},
        {"<r>1 < 2</r>", "{} 9"},
        {"<r><![CDATA[open", "{} 63"},
        {"<r><a", "{} 5"},
        {"<r><?xml version='1.0'?></r>", "{} 64"},
        {"<r><a>1</a><b>2</b><c>3", "{a=1,b=2} 5"},
        {"<?xml version='1.0' encoding='klingon'?><r/>", "none 31"},
    };
    auto parser = KROXMLParser::parser();
    for (const auto& [document, result] : cases) {
        EXPECT_EQ(read(*parser, document), result) << document;
        const std::string key = "KROXMLParserError_failureReason_" +
                                std::string(result).substr(std::string(result).find(' ') + 1);
        EXPECT_NE(KROLocalizedString(key), key);
    }
    EXPECT_EQ(read(*parser, "<p:r/>"), "{} -1");
    EXPECT_EQ(text(parser->objectForData(KROBytes("<r><a>1</a><c>3")).get()), "{a=1}");
    KROErrorPtr error;
    parser->objectForData(KROBytes("<BWFXML><A>1</A><B>unclosed"), &error);
    EXPECT_EQ(error->className(), "KROXMLParserError");
    EXPECT_EQ(error->description(), "Reading the XML document failed because the XML document "
                                    "ends before all of its elements are closed.");
}

// Entity bombs, external entities and deep nesting fail cleanly.
TEST(KROXMLParser, HostileDocumentsFailCleanly) {
    std::string bomb = "<!DOCTYPE l [<!ENTITY l0 \"lol\">";
    for (int i = 1; i <= 9; ++i) {
        std::string value;
        for (int j = 0; j < 10; ++j) {
            value += "&l" + std::to_string(i - 1) + ";";
        }
        bomb += "<!ENTITY l" + std::to_string(i) + " \"" + value + "\">";
    }
    auto parser = KROXMLParser::parser();
    EXPECT_EQ(read(*parser, bomb + "]><l><a>&l9;</a></l>").substr(0, 5), "{} 89");
    KROScratchDirectory directory;
    KROWriteFile(directory / "secret", std::string_view("top secret"));
    EXPECT_EQ(read(*parser, "<!DOCTYPE r [<!ENTITY s SYSTEM \"file://" +
                                (directory / "secret").string() + "\">]><r><a>&s;</a><b>x</b></r>"),
              "{b=x} -1");
    const auto nested = [](std::size_t depth, const std::string& name) {
        std::string document;
        for (std::size_t i = 0; i < 2 * depth; ++i) {
            document += (i < depth ? "<" : "</") + name + ">" + (i + 1 == depth ? "<v>x</v>" : "");
        }
        return document;
    };
    const auto code = [&](const std::string& document) {
        const std::string result = read(*parser, document);
        return result.substr(result.rfind(' ') + 1);
    };
    parser->setDictionaryElements({"d"});
    EXPECT_EQ(code(nested(KROXMLParser::maximumDepth - 1, "d")), "-1");
    EXPECT_EQ(code(nested(KROXMLParser::maximumDepth, "d")), "1");
    EXPECT_EQ(code(nested(100000, "g")), "1");
}

// Random documents against xml.etree; our tree goes over as an XML property list.
TEST(KROXMLParser, RandomDocumentsReadAsPythonXmlEtreeReadsThem) {
    std::mt19937 random(3008);
    const auto pick = [&](std::string_view choices) { // one of the "|"-separated choices
        std::vector<std::string_view> split;
        for (std::size_t start = 0, end = 0; end != choices.npos; start = end + 1) {
            split.push_back(choices.substr(start, (end = choices.find('|', start)) - start));
        }
        return std::string(split[random() % split.size()]);
    };
    std::function<std::string(int)> element = [&](int depth) {
        const bool leaf = depth > 0 && (depth > 3 || random() % 3 == 0);
        const std::string name =
            pick(leaf ? "NAME|Value|m\xC3\xBCnze|take-2" : "SPEED|TRACK|TRACK_LIST|Items|GROUP");
        std::string inside;
        for (int i = int(random() % 5); i > 0; --i) {
            inside += leaf ? pick("plain|  spaced  |&amp;|&lt;t&gt;|&quot;&apos;|&#x263A;|&who;|"
                                  "<![CDATA[ <r> & ]]>|\xE6\x97\xA5|\xC2\xA0nb\xE3\x80\x80|"
                                  "<!-- c -->|a\r\nb|\n\t")
                           : pick("|\n| \t\r\n") + element(depth + 1);
        }
        return "<" + name + (random() % 3 ? ">" : " id='7'>") + inside + "</" + name + ">";
    };
    std::vector<std::string> documents = {
        "<?xml version=\"1.0\" encoding=\"ISO-8859-1\"?><R><NAME>Gr\xFC\xDF</NAME></R>",
        "\xEF\xBB\xBF<R><Value>bom</Value></R>"};
    while (documents.size() < 120) {
        documents.push_back("<!DOCTYPE x [<!ENTITY who \"W &amp; co\">]>\n" + element(0));
    }
    KROScratchDirectory directory;
    std::string arguments;
    for (std::size_t i = 0; i < documents.size(); ++i) {
        auto parser = KROXMLParser::parser();
        parser->setDictionaryElements({"SPEED", "TRACK"});
        parser->setArrayElements({"TRACK_LIST", "Items"});
        parser->setMakeKeysLowercase(i % 2);
        KROErrorPtr error;
        const auto root = parser->objectForData(KROBytes(documents[i]), &error);
        ASSERT_EQ(error, nullptr) << documents[i];
        KROWriteFile(directory / (std::to_string(i) + ".xml"), documents[i]);
        KROWriteFile(directory / (std::to_string(i) + ".plist"), root->toXML());
        arguments += " " + std::to_string(i % 2) + (directory / std::to_string(i)).string();
    }
    EXPECT_EQ(
        KRORunPython(
            "import sys, json, plistlib, xml.etree.ElementTree as ET\n"
            "C, A = ('SPEED', 'TRACK', 'TRACK_LIST', 'Items'), ('TRACK_LIST', 'Items')\n"
            "def put(into, key, value):\n"
            "    into.append(value) if isinstance(into, list) else into.__setitem__(key, value)\n"
            "def add(into, e, lower):\n"
            "    key, text = e.tag.lower() if lower else e.tag, (e.text or '').strip()\n"
            "    if e.tag in C: put(into, key, [] if e.tag in A else {})\n"
            "    into = (into[-1] if isinstance(into, list) else into[key]) if e.tag in C else "
            "into\n"
            "    for c in e: add(into, c, lower)\n"
            "    if not len(e) and e.tag not in C and text: put(into, key, text)\n"
            "for a in sys.argv[1:]:\n"
            "    expected = {}\n"
            "    add(expected, ET.parse(a[1:] + '.xml').getroot(), a[0] == '1')\n"
            "    ours = plistlib.load(open(a[1:] + '.plist', 'rb'))\n"
            "    if json.dumps(ours) != json.dumps(expected): print(a, expected, ours)\n"
            "print('checked', len(sys.argv) - 1)\n",
            arguments)
            .output,
        "checked 120\n");
}
