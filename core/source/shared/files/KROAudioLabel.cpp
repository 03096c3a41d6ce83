#include "KROAudioLabel.h"

#include <cmath>
#include <cstdio>

#include "KROClassRegistry.h"
#include "KROLocalizedString.h"

KRO_REGISTER_CLASS(KROAudioLabel, KROObject)

namespace {

// A number of a properties dictionary; missing, of another kind, or NaN is 0.
double numberOrZero(const KROPropertyList* value) {
    const double number = value ? value->doubleValue(0.0) : 0.0;
    return std::isnan(number) ? 0.0 : number;
}

bool liesWithin(double value, NSDoubleRange range) {
    return value >= range.location && value <= range.location + range.length;
}

// A new item of the class named in its properties, or of the label item
// class when that names no such class.
std::shared_ptr<KROAudioLabelMetadataItem> itemFromProperties(const KROPropertyList& properties) {
    std::shared_ptr<KROAudioLabelMetadataItem> item;
    const KROPropertyList* className = properties.objectForKey("class");
    if (className && className->stringValue()) {
        item = std::dynamic_pointer_cast<KROAudioLabelMetadataItem>(
            KROClassRegistry::sharedRegistry().makeObject(*className->stringValue()));
    }
    if (!item) {
        item = std::make_shared<KROAudioLabelMetadataItem>();
    }
    item->setProperties(properties);
    return item;
}

} // namespace

KROAudioLabel::~KROAudioLabel() {
    removeAllMetadata();
}

std::shared_ptr<KROAudioLabel> KROAudioLabel::labelOfType(std::string type) {
    auto label = std::make_shared<KROAudioLabel>();
    label->setType(std::move(type));
    return label;
}

void KROAudioLabel::setStart(double start) {
    length_ -= start - location_;
    location_ = start;
}

void KROAudioLabel::setEnd(double end) {
    length_ = end - location_;
}

bool KROAudioLabel::isWithinRange(NSDoubleRange range) const {
    return liesWithin(start(), range) && liesWithin(end(), range);
}

bool KROAudioLabel::intersectsRange(NSDoubleRange range) const {
    return liesWithin(start(), range) || liesWithin(end(), range);
}

// ---------------------------------------------------------------- items

std::shared_ptr<KROAudioLabelMetadataItem>
KROAudioLabel::objectInMetadataAtIndex(std::size_t index) const {
    return index < metadata_.size() ? metadata_[index] : nullptr;
}

std::optional<std::size_t>
KROAudioLabel::indexOfObjectInMetadata(const KROMetadataItem& item) const {
    for (std::size_t i = 0; i < metadata_.size(); ++i) {
        if (metadata_[i]->isEqual(item)) {
            return i;
        }
    }
    return std::nullopt;
}

void KROAudioLabel::insertObjectInMetadataAtIndex(std::shared_ptr<KROAudioLabelMetadataItem> item,
                                                  std::size_t index) {
    if (!item) {
        return;
    }
    item->setLabel(this);
    metadata_.insert(metadata_.begin() +
                         static_cast<std::ptrdiff_t>(std::min(index, metadata_.size())),
                     std::move(item));
}

void KROAudioLabel::removeObjectFromMetadataAtIndex(std::size_t index) {
    if (index >= metadata_.size()) {
        return;
    }
    metadata_[index]->setLabel(nullptr);
    metadata_.erase(metadata_.begin() + static_cast<std::ptrdiff_t>(index));
}

void KROAudioLabel::removeAllMetadata() {
    while (!metadata_.empty()) {
        removeObjectFromMetadataAtIndex(metadata_.size() - 1);
    }
}

std::shared_ptr<KROAudioLabelMetadataItem> KROAudioLabel::itemForKey(std::string_view key) const {
    for (const auto& item : metadata_) {
        if (item->key() == key) {
            return item;
        }
    }
    return nullptr;
}

// ---------------------------------------------------------------- keys

const KROPropertyList* KROAudioLabel::valueForUndefinedKey(std::string_view key) const {
    const auto item = itemForKey(key);
    return item && item->value() ? &*item->value() : nullptr;
}

void KROAudioLabel::setValueForUndefinedKey(std::optional<KROPropertyList> value,
                                            std::string_view key) {
    if (const auto item = itemForKey(key)) {
        item->setValue(std::move(value));
        return;
    }
    insertObjectInMetadataAtIndex(
        KROAudioLabelMetadataItem::metadataItemWithValue(std::move(value), std::string(key)),
        metadata_.size());
}

std::optional<KROPropertyList> KROAudioLabel::valueForKey(std::string_view key) const {
    if (key == "type") {
        return KROPropertyList(type_);
    }
    if (key == "location") {
        return KROPropertyList(location_);
    }
    if (key == "length") {
        return KROPropertyList(length_);
    }
    if (key == "metadata") {
        return *properties().objectForKey("metadata");
    }
    if (const KROPropertyList* value = valueForUndefinedKey(key)) {
        return *value;
    }
    return std::nullopt;
}

void KROAudioLabel::setValue(std::optional<KROPropertyList> value, std::string_view key) {
    if (key == "type") {
        if (value && value->stringValue()) {
            type_ = *value->stringValue();
        }
    } else if (key == "location" || key == "length") {
        if (value && value->isNumber()) {
            (key == "location" ? location_ : length_) = value->doubleValue();
        }
    } else if (key == "metadata") {
        if (value && value->isArray()) {
            setMetadataProperties(*value);
        }
    } else {
        setValueForUndefinedKey(std::move(value), key);
    }
}

// ---------------------------------------------------------------- properties

KROPropertyList KROAudioLabel::properties() const {
    KROPropertyList items = KROPropertyList::array();
    for (const auto& item : metadata_) {
        items.addObject(item->properties());
    }
    KROPropertyList properties;
    properties.setObjectForKey("class", className());
    properties.setObjectForKey("type", type_);
    properties.setObjectForKey("location", location_);
    properties.setObjectForKey("length", length_);
    properties.setObjectForKey("metadata", std::move(items));
    return properties;
}

void KROAudioLabel::setProperties(const KROPropertyList& properties) {
    const KROPropertyList* type = properties.objectForKey("type");
    type_ = type && type->stringValue() ? *type->stringValue() : std::string();
    location_ = numberOrZero(properties.objectForKey("location"));
    length_ = numberOrZero(properties.objectForKey("length"));
    const KROPropertyList* items = properties.objectForKey("metadata");
    setMetadataProperties(items ? *items : KROPropertyList::array());
}

void KROAudioLabel::setMetadataProperties(const KROPropertyList& array) {
    removeAllMetadata();
    const auto* items = array.arrayValue();
    if (items == nullptr) {
        return;
    }
    for (const KROPropertyList& itemProperties : *items) {
        if (itemProperties.isDictionary()) {
            insertObjectInMetadataAtIndex(itemFromProperties(itemProperties), metadata_.size());
        }
    }
}

std::string KROAudioLabel::typeName() const {
    return KROLocalizedString(staticClassName() + "_type_" + type_);
}

bool KROAudioLabel::isEqual(const KROObject& other) const {
    const auto* label = dynamic_cast<const KROAudioLabel*>(&other);
    if (label == nullptr || label->type_ != type_ || label->location_ != location_ ||
        label->length_ != length_ || label->metadata_.size() != metadata_.size()) {
        return false;
    }
    for (std::size_t i = 0; i < metadata_.size(); ++i) {
        if (!metadata_[i]->isEqual(*label->metadata_[i])) {
            return false;
        }
    }
    return true;
}

std::size_t KROAudioLabel::hash() const {
    return std::hash<std::string>{}(type_) ^ std::hash<double>{}(location_);
}

std::shared_ptr<KROAudioLabel> KROAudioLabel::copy() const {
    auto copy = std::dynamic_pointer_cast<KROAudioLabel>(
        KROClassRegistry::sharedRegistry().makeObject(className()));
    if (!copy) {
        copy = std::make_shared<KROAudioLabel>();
    }
    copy->setProperties(properties());
    return copy;
}

std::string KROAudioLabel::description() const {
    char text[96];
    std::snprintf(text, sizeof text, "Label %p: type=", static_cast<const void*>(this));
    char numbers[96];
    std::snprintf(numbers, sizeof numbers, ", location=%.2f, length=%.2f", location_, length_);
    return text + type_ + numbers;
}

// ---------------------------------------------------------------- clipboard

std::vector<std::string> KROAudioLabel::readableTypesForPasteboard() {
    return {pasteboardType};
}

std::vector<std::string> KROAudioLabel::writableTypesForPasteboard() const {
    return {pasteboardType};
}

std::optional<KROData> KROAudioLabel::pasteboardPropertyListForType(const std::string& type) const {
    if (type != pasteboardType) {
        return std::nullopt;
    }
    const std::string xml = properties().toXML();
    return KROData(xml.begin(), xml.end());
}

bool KROAudioLabel::initWithPasteboardPropertyList(const KROData& data, const std::string& type) {
    if (type != pasteboardType) {
        return false;
    }
    const auto properties = KROPropertyList::fromData(data.data(), data.size());
    if (!properties || !properties->isDictionary()) {
        return false;
    }
    setProperties(*properties);
    return true;
}

bool KROAudioLabel::writeLabelsToPasteboard(
    const std::vector<std::shared_ptr<KROAudioLabel>>& labels) {
    return KROPasteboard::writeObjects({labels.begin(), labels.end()});
}

std::vector<std::shared_ptr<KROAudioLabel>> KROAudioLabel::labelsFromPasteboard() {
    return KROPasteboard::readObjects<KROAudioLabel>();
}
