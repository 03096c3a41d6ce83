// Reads an XML document into a tree of dictionaries, arrays and strings,
// steered by four lists of element names. The event reader behind it is expat;
// its events reach the three delegate operations in document order.
//
// External entities are never loaded, parameter entities are not parsed,
// entity expansion is bounded by expat's amplification limit, and elements
// may nest at most maximumDepth deep. A failed parse is reported as a
// KROXMLParserError (through KROError::errorWithNSError of a platform error of
// NSXMLParserErrorDomain) whose code is the platform's NSXMLParserError for
// the expat failure:
//
//   expat error                                code
//   no element found, nothing opened yet       4   empty document
//   syntax error before any element            4   empty document
//   no element found inside an open element    5   document ended prematurely
//   unclosed token, partial character          5   document ended prematurely
//   out of memory                              2   out of memory
//   invalid token, syntax error in an element  9   invalid character
//   bad character reference                    8   invalid character reference
//   tag mismatch                               76  tag name mismatch
//   duplicate attribute                        42  attribute redefined
//   junk after the document element            86  extra content
//   undefined entity                           26  undeclared entity
//   recursive entity reference                 89  entity reference loop
//   amplification limit breach                 89  entity reference loop
//   asynchronous entity                        90  entity boundary
//   binary entity reference                    28  unparsed entity
//   external entity in an attribute            29  entity is external
//   parameter entity reference                 30  entity is parameter
//   XML declaration not at the start           64  misplaced XML declaration
//   unknown encoding                           31  unknown encoding
//   incorrect encoding                         81  invalid encoding
//   unclosed CDATA section                     63  CDATA not finished
//   unbound or reserved namespace prefix       35  namespace declaration
//   nesting deeper than maximumDepth           1   internal error (as libxml2)
//   any other                                  1   internal error
#pragma once

#include <cstddef>
#include <cstdint>
#include <memory>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "KROObject.h"
#include "KROPropertyList.h"

struct XML_ParserStruct;

class KROXMLParser : public KROObject {
    KRO_DECLARE_CLASS(KROXMLParser)

public:
    using Attributes = std::vector<std::pair<std::string, std::string>>;

    // The deepest nesting of elements accepted, the default limit of libxml2.
    static constexpr std::size_t maximumDepth = 256;

    KROXMLParser() = default;
    KROXMLParser(const KROXMLParser&) = delete;
    KROXMLParser& operator=(const KROXMLParser&) = delete;
    ~KROXMLParser() override;

    static std::shared_ptr<KROXMLParser> parser();

    void setDictionaryElements(std::vector<std::string> names);
    void setArrayElements(std::vector<std::string> names);
    void setIgnoredElements(std::vector<std::string> names);
    void setIgnoredContainers(std::vector<std::string> names);
    // Array or Dictionary (the default); other kinds are ignored.
    void setRootClass(KROPropertyList::Type rootClass);
    // Lower-casing covers the ASCII letters of a name.
    void setMakeKeysLowercase(bool makeKeysLowercase);

    // A fresh stack and event reader for each call. The root container, which
    // can be partial or null after a failure.
    std::shared_ptr<KROPropertyList> objectForData(const KROData& data,
                                                   KROErrorPtr* error = nullptr);

    // The delegate operations; the element name is the name as written,
    // prefix included.
    void didStartElement(const std::string& elementName, const std::string& namespaceURI,
                         const std::string& qualifiedName, const Attributes& attributes);
    void foundCharacters(std::string_view characters);
    void didEndElement(const std::string& elementName, const std::string& namespaceURI,
                       const std::string& qualifiedName);

    // The result of the last parse, or of the delegate calls since.
    std::shared_ptr<KROPropertyList> root() const { return root_; }

private:
    static void startHandler(void* userData, const char* name, const char** attributes);
    static void endHandler(void* userData, const char* name);
    static void characterHandler(void* userData, const char* characters, int length);

    bool run(const KROData& data);
    std::int64_t failureCode() const;
    void makeRoot();
    KROPropertyList* addToCurrentContainer(const std::string& name, KROPropertyList value);
    std::string keyForName(const std::string& name) const;

    std::vector<KROPropertyList*> familyTree_;
    std::vector<std::string> dictionaryElements_;
    std::vector<std::string> arrayElements_;
    std::vector<std::string> ignoredElements_;
    std::vector<std::string> ignoredContainers_;
    XML_ParserStruct* parser_ = nullptr;
    std::shared_ptr<KROPropertyList> root_;
    KROPropertyList::Type rootClass_ = KROPropertyList::Type::Dictionary;
    std::string element_;
    std::int64_t isIgnoring_ = 0;
    bool makeKeysLowercase_ = false;

    std::size_t depth_ = 0;
    bool elementBegun_ = false;
    bool tooDeep_ = false;
};
