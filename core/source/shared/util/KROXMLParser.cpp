#include "KROXMLParser.h"

#include <algorithm>

#include "KROError.h"
#include "KROLocalizedString.h"
#include "KROStringHelpers.h"

// Expat declares its amplification limits only where XML_DTD is defined.
#if KRO_EXPAT_BILLION_LAUGHS_API && !defined(XML_DTD)
#define XML_DTD 1
#endif
#include <expat.h>

namespace {

constexpr std::size_t kChunkBytes = std::size_t{1} << 30;

bool contains(const std::vector<std::string>& names, const std::string& name) {
    return std::find(names.begin(), names.end(), name) != names.end();
}

std::int64_t platformCodeForExpatError(XML_Error error, bool elementBegun, std::size_t depth) {
    switch (error) {
    case XML_ERROR_NO_ELEMENTS:
        return depth > 0 ? 5 : 4;
    case XML_ERROR_SYNTAX:
        return elementBegun ? 9 : 4;
    case XML_ERROR_UNCLOSED_TOKEN:
    case XML_ERROR_PARTIAL_CHAR:
        return 5;
    case XML_ERROR_NO_MEMORY:
        return 2;
    case XML_ERROR_INVALID_TOKEN:
        return 9;
    case XML_ERROR_BAD_CHAR_REF:
        return 8;
    case XML_ERROR_TAG_MISMATCH:
        return 76;
    case XML_ERROR_DUPLICATE_ATTRIBUTE:
        return 42;
    case XML_ERROR_JUNK_AFTER_DOC_ELEMENT:
        return 86;
    case XML_ERROR_UNDEFINED_ENTITY:
        return 26;
    case XML_ERROR_RECURSIVE_ENTITY_REF:
#if KRO_EXPAT_BILLION_LAUGHS_API
    case XML_ERROR_AMPLIFICATION_LIMIT_BREACH:
#endif
        return 89;
    case XML_ERROR_ASYNC_ENTITY:
        return 90;
    case XML_ERROR_BINARY_ENTITY_REF:
        return 28;
    case XML_ERROR_ATTRIBUTE_EXTERNAL_ENTITY_REF:
        return 29;
    case XML_ERROR_PARAM_ENTITY_REF:
        return 30;
    case XML_ERROR_MISPLACED_XML_PI:
        return 64;
    case XML_ERROR_UNKNOWN_ENCODING:
        return 31;
    case XML_ERROR_INCORRECT_ENCODING:
        return 81;
    case XML_ERROR_UNCLOSED_CDATA_SECTION:
        return 63;
    case XML_ERROR_UNBOUND_PREFIX:
    case XML_ERROR_UNDECLARING_PREFIX:
    case XML_ERROR_RESERVED_PREFIX_XML:
    case XML_ERROR_RESERVED_PREFIX_XMLNS:
    case XML_ERROR_RESERVED_NAMESPACE_URI:
        return 35;
    default:
        return 1;
    }
}

void protectAgainstEntityExpansion(XML_Parser parser) {
    XML_SetParamEntityParsing(parser, XML_PARAM_ENTITY_PARSING_NEVER);
#if KRO_EXPAT_BILLION_LAUGHS_API
    XML_SetBillionLaughsAttackProtectionMaximumAmplification(parser, 100.0f);
    XML_SetBillionLaughsAttackProtectionActivationThreshold(parser, 8 * 1024 * 1024);
#endif
}

} // namespace

KROXMLParser::~KROXMLParser() {
    if (parser_) {
        XML_ParserFree(parser_);
    }
}

std::shared_ptr<KROXMLParser> KROXMLParser::parser() {
    return std::make_shared<KROXMLParser>();
}

void KROXMLParser::setDictionaryElements(std::vector<std::string> names) {
    dictionaryElements_ = std::move(names);
}

void KROXMLParser::setArrayElements(std::vector<std::string> names) {
    arrayElements_ = std::move(names);
}

void KROXMLParser::setIgnoredElements(std::vector<std::string> names) {
    ignoredElements_ = std::move(names);
}

void KROXMLParser::setIgnoredContainers(std::vector<std::string> names) {
    ignoredContainers_ = std::move(names);
}

void KROXMLParser::setRootClass(KROPropertyList::Type rootClass) {
    if (rootClass == KROPropertyList::Type::Array ||
        rootClass == KROPropertyList::Type::Dictionary) {
        rootClass_ = rootClass;
    }
}

void KROXMLParser::setMakeKeysLowercase(bool makeKeysLowercase) {
    makeKeysLowercase_ = makeKeysLowercase;
}

std::shared_ptr<KROPropertyList> KROXMLParser::objectForData(const KROData& data,
                                                             KROErrorPtr* error) {
    familyTree_.clear();
    root_.reset();
    parser_ = XML_ParserCreate(nullptr);
    bool succeeded = false;
    std::int64_t code = 2;
    if (parser_) {
        succeeded = run(data);
        code = failureCode();
        XML_ParserFree(parser_);
        parser_ = nullptr;
    }
    if (!succeeded && error) {
        *error =
            KROError::errorWithNSError(KRONSError::errorWithDomain(NSXMLParserErrorDomain, code),
                                       KROLocalizedString("KROXMLParser_parsing"));
    }
    familyTree_.clear();
    return root_;
}

bool KROXMLParser::run(const KROData& data) {
    depth_ = 0;
    elementBegun_ = false;
    tooDeep_ = false;
    XML_SetUserData(parser_, this);
    XML_SetElementHandler(parser_, startHandler, endHandler);
    XML_SetCharacterDataHandler(parser_, characterHandler);
    protectAgainstEntityExpansion(parser_);
    const auto* bytes = reinterpret_cast<const char*>(data.data());
    std::size_t offset = 0;
    do {
        const std::size_t length = std::min(data.size() - offset, kChunkBytes);
        const bool isFinal = offset + length == data.size();
        if (XML_Parse(parser_, bytes + offset, static_cast<int>(length), isFinal) !=
            XML_STATUS_OK) {
            return false;
        }
        offset += length;
    } while (offset < data.size());
    return true;
}

std::int64_t KROXMLParser::failureCode() const {
    if (tooDeep_) {
        return 1;
    }
    return platformCodeForExpatError(XML_GetErrorCode(parser_), elementBegun_, depth_);
}

void KROXMLParser::startHandler(void* userData, const char* name, const char** attributes) {
    auto* self = static_cast<KROXMLParser*>(userData);
    if (self->depth_ >= maximumDepth) {
        self->tooDeep_ = true;
        XML_StopParser(self->parser_, XML_FALSE);
        return;
    }
    ++self->depth_;
    self->elementBegun_ = true;
    Attributes pairs;
    for (std::size_t i = 0; attributes[i] && attributes[i + 1]; i += 2) {
        pairs.emplace_back(attributes[i], attributes[i + 1]);
    }
    const std::string elementName(name);
    self->didStartElement(elementName, std::string(), elementName, pairs);
}

void KROXMLParser::endHandler(void* userData, const char* name) {
    auto* self = static_cast<KROXMLParser*>(userData);
    --self->depth_;
    const std::string elementName(name);
    self->didEndElement(elementName, std::string(), elementName);
}

void KROXMLParser::characterHandler(void* userData, const char* characters, int length) {
    auto* self = static_cast<KROXMLParser*>(userData);
    self->foundCharacters(std::string_view(characters, static_cast<std::size_t>(length)));
}

void KROXMLParser::makeRoot() {
    if (root_) {
        return;
    }
    root_ = std::make_shared<KROPropertyList>(rootClass_ == KROPropertyList::Type::Array
                                                  ? KROPropertyList::array()
                                                  : KROPropertyList::dictionary());
    familyTree_.push_back(root_.get());
}

std::string KROXMLParser::keyForName(const std::string& name) const {
    if (!makeKeysLowercase_) {
        return name;
    }
    std::string key = name;
    std::transform(key.begin(), key.end(), key.begin(),
                   [](char c) { return (c >= 'A' && c <= 'Z') ? static_cast<char>(c + 32) : c; });
    return key;
}

KROPropertyList* KROXMLParser::addToCurrentContainer(const std::string& name,
                                                     KROPropertyList value) {
    if (familyTree_.empty()) {
        return nullptr;
    }
    KROPropertyList* container = familyTree_.back();
    if (auto* array = container->arrayValue()) {
        array->push_back(std::move(value));
        return &array->back();
    }
    const std::string key = keyForName(name);
    container->setObjectForKey(key, std::move(value));
    return container->objectForKey(key);
}

void KROXMLParser::didStartElement(const std::string& elementName, const std::string&,
                                   const std::string&, const Attributes&) {
    if (contains(ignoredElements_, elementName)) {
        return;
    }
    const bool isDictionary = contains(dictionaryElements_, elementName);
    if (isDictionary || contains(arrayElements_, elementName)) {
        makeRoot();
        KROPropertyList* child = addToCurrentContainer(
            elementName, isDictionary ? KROPropertyList::dictionary() : KROPropertyList::array());
        if (child) {
            familyTree_.push_back(child);
        }
        return;
    }
    if (contains(ignoredContainers_, elementName)) {
        ++isIgnoring_;
        return;
    }
    makeRoot();
    element_.clear();
}

void KROXMLParser::foundCharacters(std::string_view characters) {
    if (isIgnoring_ == 0) {
        element_.append(characters);
    }
}

void KROXMLParser::didEndElement(const std::string& elementName, const std::string&,
                                 const std::string&) {
    if (contains(ignoredElements_, elementName)) {
        return;
    }
    if (contains(dictionaryElements_, elementName) || contains(arrayElements_, elementName)) {
        if (!familyTree_.empty()) {
            familyTree_.pop_back();
        }
        return;
    }
    if (contains(ignoredContainers_, elementName)) {
        --isIgnoring_;
        return;
    }
    const std::string text(kro::stringByTrimmingWhitespaceAndNewlines(element_));
    if (!text.empty()) {
        addToCurrentContainer(elementName, KROPropertyList(text));
        element_.clear();
    }
}
