// The channels of one multi-channel layout, channel 0 first: stereo is a left
// and a right. The identifier names the layout in data ("5.1"); the name is
// for people.
#pragma once

#include <cstddef>
#include <memory>
#include <string>
#include <vector>

#include "KROAudioChannelDescription.h"
#include "KROObject.h"

class KROAudioChannelSet : public KROObject {
    KRO_DECLARE_CLASS(KROAudioChannelSet)

public:
    using Descriptions = std::vector<std::shared_ptr<KROAudioChannelDescription>>;

    static std::shared_ptr<KROAudioChannelSet> setWithName(std::string name,
                                                           std::string identifier);
    KROAudioChannelSet& initWithName(std::string name, std::string identifier);

    std::size_t countOfDescriptions() const { return descriptions_.size(); }
    const Descriptions& enumeratorOfDescriptions() const { return descriptions_; }
    // Null past the end.
    std::shared_ptr<KROAudioChannelDescription>
    objectInDescriptionsAtIndex(std::size_t index) const;
    // An index past the end appends.
    void insertObjectInDescriptionsAtIndex(std::shared_ptr<KROAudioChannelDescription> description,
                                           std::size_t index);

    const std::string& name() const { return name_; }
    void setName(std::string name) { name_ = std::move(name); }
    const std::string& identifier() const { return identifier_; }
    void setIdentifier(std::string identifier) { identifier_ = std::move(identifier); }

    // Equal with an equal name and identifier; the hash is the identifier's.
    bool isEqual(const KROObject& other) const override;
    std::size_t hash() const override;

private:
    std::string name_;
    std::string identifier_;
    Descriptions descriptions_;
};
