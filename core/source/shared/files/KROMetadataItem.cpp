#include "KROMetadataItem.h"

#include "KROClassRegistry.h"
#include "KROLocalizedString.h"

KRO_REGISTER_CLASS(KROMetadataItem, KROObject)

std::shared_ptr<KROMetadataItem>
KROMetadataItem::metadataItemWithValue(std::optional<KROPropertyList> value, std::string key) {
    auto item = std::make_shared<KROMetadataItem>();
    item->setKey(std::move(key));
    item->setValue(std::move(value));
    return item;
}

bool KROMetadataItem::isEqual(const KROObject& other) const {
    const auto* item = dynamic_cast<const KROMetadataItem*>(&other);
    return item != nullptr && item->key_ == key_ && item->value_ == value_;
}

std::size_t KROMetadataItem::hash() const {
    return std::hash<std::string>{}(key_);
}

std::string KROMetadataItem::description() const {
    return key_ + " = " + (value_ ? value_->description() : std::string("(null)"));
}

std::string KROMetadataItem::title() const {
    return KROLocalizedString(KROMetadataItem::staticClassName() + "_" + key_);
}

KROPropertyList KROMetadataItem::properties() const {
    KROPropertyList properties;
    properties.setObjectForKey("class", className());
    properties.setObjectForKey("key", key_);
    if (value_) {
        properties.setObjectForKey("value", *value_);
    }
    return properties;
}

void KROMetadataItem::setProperties(const KROPropertyList& properties) {
    const KROPropertyList* key = properties.objectForKey("key");
    key_ = key && key->stringValue() ? *key->stringValue() : std::string();
    const KROPropertyList* value = properties.objectForKey("value");
    value_ = value ? std::optional<KROPropertyList>(*value) : std::nullopt;
}
