// The observer roles of a bus. An object registered on a bus as a
// pre-render target receives willRender before the audio is pulled through
// the bus, a post-render target didRender after it. Both are called on the
// render thread under the bus's targetLock: they may not allocate, block, or
// add or remove targets of the same bus.
#pragma once

class KROAudioBufferList;
class KROAudioBus;
class KROAudioStreamRenderInfo;

class KROAudioBusObserver {
public:
    virtual ~KROAudioBusObserver() = default;

    // The two messages are optional in the role: an observer answers the one
    // it is registered for, the other does nothing.
    virtual void willRender(KROAudioBufferList& /*buffer*/, KROAudioBus& /*bus*/,
                            KROAudioStreamRenderInfo& /*info*/) {}
    virtual void didRender(KROAudioBufferList& /*buffer*/, KROAudioBus& /*bus*/,
                           KROAudioStreamRenderInfo& /*info*/) {}
};
