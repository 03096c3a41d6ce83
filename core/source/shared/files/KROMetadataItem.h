// A key and a value: one piece of metadata that a label or a file carries.
// The value is any property-list value (string, number, date, data, array)
// or empty. Items compare by key and value, whatever their class.
#pragma once

#include <memory>
#include <optional>
#include <string>

#include "KROObject.h"
#include "KROPropertyList.h"

class KROMetadataItem : public KROObject {
    KRO_DECLARE_CLASS(KROMetadataItem)

public:
    KROMetadataItem() = default;

    static std::shared_ptr<KROMetadataItem>
    metadataItemWithValue(std::optional<KROPropertyList> value, std::string key);

    const std::string& key() const { return key_; }
    void setKey(std::string key) { key_ = std::move(key); }
    const std::optional<KROPropertyList>& value() const { return value_; }
    void setValue(std::optional<KROPropertyList> value) { value_ = std::move(value); }

    // Any KROMetadataItem, of this class or another, with an equal key and value.
    bool isEqual(const KROObject& other) const override;
    std::size_t hash() const override;
    // "key = value"; an empty value reads "(null)".
    std::string description() const override;
    // The localized name of the key: the text of "KROMetadataItem_name" for "name".
    std::string title() const;

    // class (the class's name), key and value; no value entry when empty.
    KROPropertyList properties() const;
    // Key and value from such a dictionary; a missing value empties the item.
    void setProperties(const KROPropertyList& properties);

private:
    std::string key_;
    std::optional<KROPropertyList> value_;
};
