// The stream owns one graph, a set of processors and a set of
// connections. It builds the graph from a description, initialises it by
// walking outward from the heads, starts and stops it through the heads, and
// finds things by identifier. It holds no lock and has no thread: set-up
// calls come from one host thread at a time, and the sets must not change
// while the stream runs.
//
// Both sets keep their members unique and in the order they were added;
// callers must not rely on that order.
//
// init has two forms: init() makes an empty stream, init(error) loads the
// description resource named after the stream's class,
// "<className>.plist". It is looked for first in the host's resource
// directory (setResourceSearchDirectory, the Linux form of the application's
// main resources), then in the library's resource directory
// (KROResourcePath). A resource that is missing or not a dictionary counts as
// an empty description: code 2.
#pragma once

#include <filesystem>
#include <memory>
#include <string>
#include <vector>

#include "KROError.h"
#include "KROObject.h"
#include "KROPropertyList.h"

class KROAudioConnection;
class KROAudioInputBus;
class KROAudioOutputBus;
class KROAudioProcessor;
class KROHeadAudioProcessor;

class KROAudioStream : public KROObject {
    KRO_DECLARE_CLASS(KROAudioStream)

public:
    using Processors = std::vector<std::shared_ptr<KROAudioProcessor>>;
    using Connections = std::vector<std::shared_ptr<KROAudioConnection>>;

    KROAudioStream() = default;
    KROAudioStream(const KROAudioStream&) = delete;
    KROAudioStream& operator=(const KROAudioStream&) = delete;
    // Stops and uninitialises with no error out-argument, releases the
    // connections, clears each processor's stream and releases them.
    ~KROAudioStream() override;

    // An empty stream.
    bool init();
    // The description resource named after the class, see above.
    bool init(KROErrorPtr* error);
    // Makes every processor (buses first, then its settings), then every
    // connection. On failure the stream is left empty and false returned.
    bool initWithDescription(const KROPropertyList& description, KROErrorPtr* error = nullptr);
    // Reads an XML (or binary) property-list file and builds from it; a file
    // that cannot be read fails with the reader's error.
    bool initWithDescriptionFile(const std::filesystem::path& path, KROErrorPtr* error = nullptr);

    // The host's directory of stream resources for init(error); empty for
    // none. Set-up only.
    static void setResourceSearchDirectory(const std::filesystem::path& directory);
    static std::filesystem::path resourceSearchDirectory();
    // Where init(error) finds the resource named after the class, or empty.
    std::filesystem::path descriptionResourcePath() const;

    // The two walks from a processor, normally a head: each processor is
    // initialised before its neighbours, and a KROIOAudioProcessor ends it.
    bool initializeForRender(KROAudioProcessor* processor, KROErrorPtr* error = nullptr);
    bool initializeForInput(KROAudioProcessor* processor, KROErrorPtr* error = nullptr);
    // Input walk first, then render walk; refused with code 9 while
    // running. On failure every initialised processor is uninitialised and
    // every connection cleared.
    bool initialize(KROErrorPtr* error = nullptr);
    // Tests the processors that the two walks reach; no heads means true.
    bool isInitialized() const;
    bool isProcessorInitializedForInput(const KROAudioProcessor* processor) const;
    bool isProcessorInitializedForRender(const KROAudioProcessor* processor) const;
    // Stops first when running, then uninitialises and clears connections.
    bool uninitialize(KROErrorPtr* error = nullptr);
    // Every processor, initialised or not; refused with code 9 while running.
    bool reset(KROErrorPtr* error = nullptr);
    // The input head, then a distinct render head. Code 8 when not
    // initialised, code 1 when there is no head.
    bool start(KROErrorPtr* error = nullptr);
    bool stop(KROErrorPtr* error = nullptr);
    // True when any head answers true to isRunning.
    bool isRunning() const;

    // A connection end and the bus's reference are set together.
    void connectInputBus(KROAudioInputBus& bus, KROAudioConnection& connection);
    void connectOutputBus(KROAudioOutputBus& bus, KROAudioConnection& connection);
    void disconnectInputBus(KROAudioInputBus& bus);
    void disconnectOutputBus(KROAudioOutputBus& bus);

    // Linear searches by identifier; an empty name finds nothing.
    std::shared_ptr<KROAudioProcessor> processorWithIdentifier(const std::string& name) const;
    std::shared_ptr<KROAudioConnection> connectionWithIdentifier(const std::string& name) const;
    // A processor's own identifier names its bus 0, tested
    // before that processor's buses.
    std::shared_ptr<KROAudioInputBus> inputBusWithIdentifier(const std::string& name) const;
    std::shared_ptr<KROAudioOutputBus> outputBusWithIdentifier(const std::string& name) const;

    // The first head of processors with the flag, or none.
    std::shared_ptr<KROHeadAudioProcessor> renderHeadProcessor() const;
    std::shared_ptr<KROHeadAudioProcessor> inputHeadProcessor() const;
    // Clear the flag of the present head and set it on the one given, which
    // is not added to processors.
    void setRenderHeadProcessor(KROHeadAudioProcessor* head);
    void setInputHeadProcessor(KROHeadAudioProcessor* head);

    std::size_t countOfProcessors() const { return processors_.size(); }
    const Processors& enumeratorOfProcessors() const { return processors_; }
    std::shared_ptr<KROAudioProcessor> memberOfProcessors(const KROAudioProcessor* processor) const;
    // Sets the processor's stream to this stream, then adds it.
    void addProcessorsObject(std::shared_ptr<KROAudioProcessor> processor);
    // Clears the processor's stream, then removes it.
    void removeProcessorsObject(KROAudioProcessor* processor);

    std::size_t countOfConnections() const { return connections_.size(); }
    const Connections& enumeratorOfConnections() const { return connections_; }
    std::shared_ptr<KROAudioConnection>
    memberOfConnections(const KROAudioConnection* connection) const;
    void addConnectionsObject(std::shared_ptr<KROAudioConnection> connection);
    void removeConnectionsObject(KROAudioConnection* connection);

private:
    bool buildProcessor(const KROPropertyList& entry, KROErrorPtr* error);
    bool buildConnection(const KROPropertyList& entry, KROErrorPtr* error);
    bool failConstruction();
    void releaseAll();

    Processors processors_;
    Connections connections_;
};
