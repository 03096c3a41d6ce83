// A metadata item that hangs on a label: its name, loop type, sync point
// function and the like. It points back at its label without owning it.
#pragma once

#include "KROMetadataItem.h"

class KROAudioLabel;

class KROAudioLabelMetadataItem : public KROMetadataItem {
    KRO_DECLARE_CLASS(KROAudioLabelMetadataItem)

public:
    KROAudioLabelMetadataItem() = default;

    static std::shared_ptr<KROAudioLabelMetadataItem>
    metadataItemWithValue(std::optional<KROPropertyList> value, std::string key);

    // The label that holds the item; set and cleared by the label.
    KROAudioLabel* label() const { return label_; }
    void setLabel(KROAudioLabel* label) { label_ = label; }

private:
    KROAudioLabel* label_ = nullptr;
};
