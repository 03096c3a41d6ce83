#include "KROAudioStream.h"

#include <algorithm>
#include <mutex>
#include <system_error>

#include "KROAudioBus.h"
#include "KROAudioConnection.h"
#include "KROAudioProcessor.h"
#include "KROClassRegistry.h"
#include "KROHeadAudioProcessor.h"
#include "KROIOAudioProcessor.h"
#include "KROResources.h"

KRO_REGISTER_CLASS(KROAudioStream, KROObject)

namespace {

std::mutex resourceDirectoryLock;
std::filesystem::path resourceDirectory;

// The string under key, empty when absent or of another kind.
std::string stringForKey(const KROPropertyList& dictionary, const char* key) {
    const KROPropertyList* const value = dictionary.objectForKey(key);
    return value && value->isString() ? *value->stringValue() : std::string();
}

// The array under key, none when absent or of another kind.
const KROPropertyList::Array* arrayForKey(const KROPropertyList& dictionary, const char* key) {
    const KROPropertyList* const value = dictionary.objectForKey(key);
    return value ? value->arrayValue() : nullptr;
}

bool isIOProcessor(const KROAudioProcessor* processor) {
    return dynamic_cast<const KROIOAudioProcessor*>(processor) != nullptr;
}

bool isOnPath(const std::vector<const KROAudioProcessor*>& path,
              const KROAudioProcessor* processor) {
    return std::find(path.begin(), path.end(), processor) != path.end();
}

// The processor upstream of an input bus, over its connection.
KROAudioProcessor* sourceOf(const KROAudioInputBus& bus) {
    const KROAudioConnection* const connection = bus.connection();
    const KROAudioOutputBus* const upstream = connection ? connection->outputBus() : nullptr;
    return upstream ? dynamic_cast<KROAudioProcessor*>(upstream->source()) : nullptr;
}

// The processor downstream of an output bus, over its connection.
KROAudioProcessor* destinationOf(const KROAudioOutputBus& bus) {
    const KROAudioConnection* const connection = bus.connection();
    const KROAudioInputBus* const downstream = connection ? connection->inputBus() : nullptr;
    return downstream ? dynamic_cast<KROAudioProcessor*>(downstream->destination()) : nullptr;
}

// The processors that the render walk follows (over the input buses) and
// that the input walk follows (over the output buses). The two walks, and
// the two initialised tests, differ in nothing else.
std::vector<KROAudioProcessor*> upstreamOf(const KROAudioProcessor& processor) {
    std::vector<KROAudioProcessor*> sources;
    for (const auto& bus : processor.inputBuses()) {
        sources.push_back(sourceOf(*bus));
    }
    return sources;
}

std::vector<KROAudioProcessor*> downstreamOf(const KROAudioProcessor& processor) {
    std::vector<KROAudioProcessor*> destinations;
    for (const auto& bus : processor.outputBuses()) {
        destinations.push_back(destinationOf(*bus));
    }
    return destinations;
}

using Path = std::vector<const KROAudioProcessor*>;
using Neighbours = std::vector<KROAudioProcessor*> (*)(const KROAudioProcessor&);
using Initialize = bool (KROAudioProcessor::*)(KROErrorPtr*);

// The render and input walks. A cycle would recurse forever, so a
// processor already on this walk's path is stepped over. A processor
// reached by two paths is still initialised twice.
bool walk(KROAudioProcessor* processor, Path& path, KROErrorPtr* error, Initialize initialize,
          Neighbours neighbours) {
    if (!processor || isOnPath(path, processor)) {
        return true;
    }
    if (!(processor->*initialize)(error)) {
        return false;
    }
    processor->setInitialized(true);
    // A KROIOAudioProcessor is where an input chain and a render chain meet.
    if (isIOProcessor(processor)) {
        return true;
    }
    path.push_back(processor);
    for (KROAudioProcessor* next : neighbours(*processor)) {
        if (!walk(next, path, error, initialize, neighbours)) {
            return false;
        }
    }
    path.pop_back();
    return true;
}

// The same shape as the walks, testing instead of initialising.
bool test(const KROAudioProcessor* processor, Path& path, Neighbours neighbours) {
    if (!processor || isOnPath(path, processor)) {
        return true;
    }
    if (!processor->isInitialized()) {
        return false;
    }
    if (isIOProcessor(processor)) {
        return true;
    }
    path.push_back(processor);
    for (const KROAudioProcessor* next : neighbours(*processor)) {
        if (!test(next, path, neighbours)) {
            return false;
        }
    }
    path.pop_back();
    return true;
}

} // namespace

KROAudioStream::~KROAudioStream() {
    stop(nullptr);
    uninitialize(nullptr);
    releaseAll();
}

void KROAudioStream::releaseAll() {
    connections_.clear();
    for (const auto& processor : processors_) {
        processor->setStream(nullptr);
    }
    processors_.clear();
}

bool KROAudioStream::init() {
    releaseAll();
    return true;
}

void KROAudioStream::setResourceSearchDirectory(const std::filesystem::path& directory) {
    std::lock_guard guard(resourceDirectoryLock);
    resourceDirectory = directory;
}

std::filesystem::path KROAudioStream::resourceSearchDirectory() {
    std::lock_guard guard(resourceDirectoryLock);
    return resourceDirectory;
}

std::filesystem::path KROAudioStream::descriptionResourcePath() const {
    const std::string name = className() + ".plist";
    std::error_code ignored;
    if (const auto directory = resourceSearchDirectory(); !directory.empty()) {
        if (std::filesystem::is_regular_file(directory / name, ignored)) {
            return directory / name;
        }
    }
    if (const auto path = KROResourcePath(name); std::filesystem::is_regular_file(path, ignored)) {
        return path;
    }
    return {};
}

bool KROAudioStream::init(KROErrorPtr* error) {
    const auto path = descriptionResourcePath();
    const auto description = path.empty() ? nullptr : KROPropertyList::fromFile(path);
    // A resource that cannot be read is read as no description at all.
    return initWithDescription(description ? *description : KROPropertyList(), error);
}

bool KROAudioStream::initWithDescriptionFile(const std::filesystem::path& path,
                                             KROErrorPtr* error) {
    const auto description = KROPropertyList::fromFile(path, error);
    if (!description) {
        releaseAll();
        return false;
    }
    return initWithDescription(*description, error);
}

bool KROAudioStream::initWithDescription(const KROPropertyList& description, KROErrorPtr* error) {
    releaseAll();
    constexpr const char* construct = "KROAudioStream_action_construct";
    if (!description.isDictionary() || description.count() == 0) {
        KROFail<KROAudioStreamError>(error, 2, construct);
        return failConstruction();
    }
    // A list of another kind where an array belongs is refused like an
    // empty description, before anything is built.
    const KROPropertyList* const processorEntries = description.objectForKey("processors");
    const KROPropertyList* const connectionEntries = description.objectForKey("connections");
    if ((processorEntries && !processorEntries->isArray()) ||
        (connectionEntries && !connectionEntries->isArray())) {
        KROFail<KROAudioStreamError>(error, 2, construct);
        return failConstruction();
    }
    if (processorEntries) {
        for (const KROPropertyList& entry : *processorEntries->arrayValue()) {
            if (!buildProcessor(entry, error)) {
                return failConstruction();
            }
        }
    }
    // Connections only when every processor exists.
    if (connectionEntries) {
        for (const KROPropertyList& entry : *connectionEntries->arrayValue()) {
            if (!buildConnection(entry, error)) {
                return failConstruction();
            }
        }
    }
    return true;
}

bool KROAudioStream::failConstruction() {
    releaseAll();
    return false;
}

bool KROAudioStream::buildProcessor(const KROPropertyList& entry, KROErrorPtr* error) {
    const std::string className = stringForKey(entry, "class");
    if (className.empty()) {
        return KROFail<KROAudioStreamError>(error, 3,
                                            "KROAudioStream_action_findingProcessorClass");
    }
    // A registered class that is not a processor is no processor class.
    auto processor = std::dynamic_pointer_cast<KROAudioProcessor>(
        KROClassRegistry::sharedRegistry().makeObject(className));
    if (!processor) {
        return KROFailWithFormat<KROAudioStreamError>(
            error, 4, "KROAudioStream_action_creatingProcessor", className);
    }
    // None from init: fails the stream with whatever error init: left, or
    // none (KROHardwareAudioProcessor without a device head).
    processor = processor->initReturningObject(error);
    if (!processor) {
        return false;
    }
    addProcessorsObject(processor);
    // The buses exist and are named before the class's own settings are read.
    if (const auto* buses = arrayForKey(entry, "inputBuses")) {
        if (!processor->setNumberOfInputBuses(buses->size(), error)) {
            return false;
        }
        for (std::size_t index = 0; index < buses->size(); ++index) {
            if (index < processor->numberOfInputBuses()) {
                processor->inputBuses()[index]->setIdentifier(
                    stringForKey((*buses)[index], "identifier"));
            }
        }
    }
    if (const auto* buses = arrayForKey(entry, "outputBuses")) {
        if (!processor->setNumberOfOutputBuses(buses->size(), error)) {
            return false;
        }
        for (std::size_t index = 0; index < buses->size(); ++index) {
            if (index < processor->numberOfOutputBuses()) {
                processor->outputBuses()[index]->setIdentifier(
                    stringForKey((*buses)[index], "identifier"));
            }
        }
    }
    return processor->setSettings(entry, error);
}

bool KROAudioStream::buildConnection(const KROPropertyList& entry, KROErrorPtr* error) {
    constexpr const char* action = "KROAudioStream_action_connectingBus";
    auto connection = std::make_shared<KROAudioConnection>();
    connection->setIdentifier(stringForKey(entry, "identifier"));
    addConnectionsObject(connection);

    // An empty or missing name leaves that end open.
    const std::string input = stringForKey(entry, "input");
    const auto upstream = outputBusWithIdentifier(input);
    if (!upstream && !input.empty()) {
        return KROFailWithFormat<KROAudioStreamError>(error, 6, action, input);
    }
    if (upstream && upstream->connection()) {
        return KROFailWithFormat<KROAudioStreamError>(error, 7, action, input);
    }
    if (upstream) {
        connectOutputBus(*upstream, *connection);
    }

    const std::string output = stringForKey(entry, "output");
    const auto downstream = inputBusWithIdentifier(output);
    if (!downstream && !output.empty()) {
        return KROFailWithFormat<KROAudioStreamError>(error, 6, action, output);
    }
    if (downstream && downstream->connection()) {
        return KROFailWithFormat<KROAudioStreamError>(error, 7, action, output);
    }
    if (downstream) {
        connectInputBus(*downstream, *connection);
    }
    return true;
}

bool KROAudioStream::initializeForRender(KROAudioProcessor* processor, KROErrorPtr* error) {
    Path path;
    return walk(processor, path, error, &KROAudioProcessor::initializeForRender, upstreamOf);
}

bool KROAudioStream::initializeForInput(KROAudioProcessor* processor, KROErrorPtr* error) {
    Path path;
    return walk(processor, path, error, &KROAudioProcessor::initializeForInput, downstreamOf);
}

bool KROAudioStream::initialize(KROErrorPtr* error) {
    if (isRunning()) {
        return KROFail<KROAudioStreamError>(error, 9, "KROAudioStream_action_initializing");
    }
    // Input goes first.
    const auto inputHead = inputHeadProcessor();
    const auto renderHead = renderHeadProcessor();
    if (initializeForInput(inputHead.get(), error) &&
        initializeForRender(renderHead.get(), error)) {
        return true;
    }
    // Kept as it stands: the rollback does not call
    // setInitialized(false), so the processors keep answering true until a
    // later uninitialize of the stream.
    const Processors processors = processors_;
    for (const auto& processor : processors) {
        if (processor->isInitialized()) {
            processor->uninitialize(nullptr);
        }
    }
    for (const auto& connection : connections_) {
        connection->clear();
    }
    return false;
}

bool KROAudioStream::isInitialized() const {
    const auto inputHead = inputHeadProcessor();
    const auto renderHead = renderHeadProcessor();
    return isProcessorInitializedForInput(inputHead.get()) &&
           isProcessorInitializedForRender(renderHead.get());
}

bool KROAudioStream::isProcessorInitializedForRender(const KROAudioProcessor* processor) const {
    Path path;
    return test(processor, path, upstreamOf);
}

bool KROAudioStream::isProcessorInitializedForInput(const KROAudioProcessor* processor) const {
    Path path;
    return test(processor, path, downstreamOf);
}

bool KROAudioStream::uninitialize(KROErrorPtr* error) {
    if (isRunning() && !stop(error)) {
        return false;
    }
    const Processors processors = processors_;
    for (const auto& processor : processors) {
        if (processor->isInitialized()) {
            if (!processor->uninitialize(error)) {
                return false;
            }
            processor->setInitialized(false);
        }
    }
    for (const auto& connection : connections_) {
        connection->clear();
    }
    return true;
}

bool KROAudioStream::reset(KROErrorPtr* error) {
    if (isRunning()) {
        return KROFail<KROAudioStreamError>(error, 9, "KROAudioStream_action_resetting");
    }
    const Processors processors = processors_;
    for (const auto& processor : processors) {
        if (!processor->reset(error)) {
            return false;
        }
    }
    return true;
}

bool KROAudioStream::start(KROErrorPtr* error) {
    if (!isInitialized()) {
        return KROFail<KROAudioStreamError>(error, 8, "KROAudioStream_action_starting");
    }
    const auto inputHead = inputHeadProcessor();
    const auto renderHead = renderHeadProcessor();
    if (inputHead && !inputHead->start(error)) {
        return false;
    }
    // One head that is both input and render head is started once.
    if (renderHead && renderHead != inputHead && !renderHead->start(error)) {
        return false;
    }
    if (!inputHead && !renderHead) {
        return KROFail<KROAudioStreamError>(error, 1, "KROAudioStream_action_starting");
    }
    return true;
}

bool KROAudioStream::stop(KROErrorPtr* error) {
    const auto inputHead = inputHeadProcessor();
    const auto renderHead = renderHeadProcessor();
    if (inputHead && !inputHead->stop(error)) {
        return false;
    }
    if (renderHead && renderHead != inputHead && !renderHead->stop(error)) {
        return false;
    }
    if (!inputHead && !renderHead) {
        return KROFail<KROAudioStreamError>(error, 1, "KROAudioStream_action_stopping");
    }
    return true;
}

bool KROAudioStream::isRunning() const {
    return std::any_of(processors_.begin(), processors_.end(), [](const auto& processor) {
        const auto* head = dynamic_cast<const KROHeadAudioProcessor*>(processor.get());
        return head && head->isRunning();
    });
}

void KROAudioStream::connectInputBus(KROAudioInputBus& bus, KROAudioConnection& connection) {
    connection.setOutput(&bus);
    bus.setConnection(&connection);
}

void KROAudioStream::connectOutputBus(KROAudioOutputBus& bus, KROAudioConnection& connection) {
    connection.setInput(&bus);
    bus.setConnection(&connection);
}

void KROAudioStream::disconnectInputBus(KROAudioInputBus& bus) {
    KROAudioConnection* const connection = bus.connection();
    bus.setConnection(nullptr);
    if (connection) {
        connection->setOutput(nullptr);
    }
}

void KROAudioStream::disconnectOutputBus(KROAudioOutputBus& bus) {
    KROAudioConnection* const connection = bus.connection();
    bus.setConnection(nullptr);
    if (connection) {
        connection->setInput(nullptr);
    }
}

std::shared_ptr<KROAudioProcessor>
KROAudioStream::processorWithIdentifier(const std::string& name) const {
    if (name.empty()) {
        return nullptr;
    }
    for (const auto& processor : processors_) {
        if (processor->identifier() == name) {
            return processor;
        }
    }
    return nullptr;
}

std::shared_ptr<KROAudioConnection>
KROAudioStream::connectionWithIdentifier(const std::string& name) const {
    if (name.empty()) {
        return nullptr;
    }
    for (const auto& connection : connections_) {
        if (connection->identifier() == name) {
            return connection;
        }
    }
    return nullptr;
}

std::shared_ptr<KROAudioInputBus>
KROAudioStream::inputBusWithIdentifier(const std::string& name) const {
    if (name.empty()) {
        return nullptr;
    }
    for (const auto& processor : processors_) {
        if (processor->identifier() == name) {
            const auto& buses = processor->inputBuses();
            return buses.empty() ? nullptr : buses.front();
        }
        for (const auto& bus : processor->inputBuses()) {
            if (bus->identifier() == name) {
                return bus;
            }
        }
    }
    return nullptr;
}

std::shared_ptr<KROAudioOutputBus>
KROAudioStream::outputBusWithIdentifier(const std::string& name) const {
    if (name.empty()) {
        return nullptr;
    }
    for (const auto& processor : processors_) {
        if (processor->identifier() == name) {
            const auto& buses = processor->outputBuses();
            return buses.empty() ? nullptr : buses.front();
        }
        for (const auto& bus : processor->outputBuses()) {
            if (bus->identifier() == name) {
                return bus;
            }
        }
    }
    return nullptr;
}

std::shared_ptr<KROHeadAudioProcessor> KROAudioStream::renderHeadProcessor() const {
    for (const auto& processor : processors_) {
        auto head = std::dynamic_pointer_cast<KROHeadAudioProcessor>(processor);
        if (head && head->isRenderHead()) {
            return head;
        }
    }
    return nullptr;
}

std::shared_ptr<KROHeadAudioProcessor> KROAudioStream::inputHeadProcessor() const {
    for (const auto& processor : processors_) {
        auto head = std::dynamic_pointer_cast<KROHeadAudioProcessor>(processor);
        if (head && head->isInputHead()) {
            return head;
        }
    }
    return nullptr;
}

void KROAudioStream::setRenderHeadProcessor(KROHeadAudioProcessor* head) {
    if (const auto present = renderHeadProcessor()) {
        present->setIsRenderHead(false);
    }
    if (head) {
        head->setIsRenderHead(true);
    }
}

void KROAudioStream::setInputHeadProcessor(KROHeadAudioProcessor* head) {
    if (const auto present = inputHeadProcessor()) {
        present->setIsInputHead(false);
    }
    if (head) {
        head->setIsInputHead(true);
    }
}

std::shared_ptr<KROAudioProcessor>
KROAudioStream::memberOfProcessors(const KROAudioProcessor* processor) const {
    for (const auto& member : processors_) {
        if (member.get() == processor) {
            return member;
        }
    }
    return nullptr;
}

void KROAudioStream::addProcessorsObject(std::shared_ptr<KROAudioProcessor> processor) {
    if (!processor) {
        return;
    }
    processor->setStream(this);
    if (!memberOfProcessors(processor.get())) {
        processors_.push_back(std::move(processor));
    }
}

void KROAudioStream::removeProcessorsObject(KROAudioProcessor* processor) {
    if (!processor) {
        return;
    }
    processor->setStream(nullptr);
    std::erase_if(processors_,
                  [processor](const auto& member) { return member.get() == processor; });
}

std::shared_ptr<KROAudioConnection>
KROAudioStream::memberOfConnections(const KROAudioConnection* connection) const {
    for (const auto& member : connections_) {
        if (member.get() == connection) {
            return member;
        }
    }
    return nullptr;
}

void KROAudioStream::addConnectionsObject(std::shared_ptr<KROAudioConnection> connection) {
    if (connection && !memberOfConnections(connection.get())) {
        connections_.push_back(std::move(connection));
    }
}

void KROAudioStream::removeConnectionsObject(KROAudioConnection* connection) {
    std::erase_if(connections_,
                  [connection](const auto& member) { return member.get() == connection; });
}
