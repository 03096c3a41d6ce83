// A second JACK client for the tests: one input port joined to a port of
// another client, recording into memory made before activation.
#pragma once

#include <jack/jack.h>

#include <atomic>
#include <cstring>
#include <string>
#include <vector>

class KROJACKTestCapture {
public:
    explicit KROJACKTestCapture(std::size_t capacity) : samples_(capacity) {}
    KROJACKTestCapture(const KROJACKTestCapture&) = delete;
    KROJACKTestCapture& operator=(const KROJACKTestCapture&) = delete;
    ~KROJACKTestCapture() {
        if (client_) {
            jack_client_close(client_);
        }
    }

    // Opens, activates and joins the port named source to the input.
    bool open(const std::string& source) {
        jack_status_t status{};
        client_ = jack_client_open("kro-test-capture", JackNoStartServer, &status);
        if (!client_) {
            return false;
        }
        port_ = jack_port_register(client_, "in", JACK_DEFAULT_AUDIO_TYPE, JackPortIsInput, 0);
        jack_set_process_callback(client_, process, this);
        return port_ && jack_activate(client_) == 0 &&
               jack_connect(client_, source.c_str(), jack_port_name(port_)) == 0;
    }

    std::vector<float> samples() const {
        const std::size_t count = written_.load();
        return {samples_.begin(), samples_.begin() + std::ptrdiff_t(count)};
    }

    // The first port of the server whose name matches the pattern.
    static std::string firstPort(const char* pattern) {
        jack_status_t status{};
        jack_client_t* client = jack_client_open("kro-test-ports", JackNoStartServer, &status);
        if (!client) {
            return {};
        }
        const char** ports = jack_get_ports(client, pattern, nullptr, 0);
        std::string result = ports && ports[0] ? ports[0] : "";
        jack_free(ports);
        jack_client_close(client);
        return result;
    }

private:
    static int process(jack_nframes_t frames, void* argument) {
        auto& self = *static_cast<KROJACKTestCapture*>(argument);
        const auto* data = static_cast<const float*>(jack_port_get_buffer(self.port_, frames));
        const std::size_t at = self.written_.load();
        const std::size_t count = std::min<std::size_t>(frames, self.samples_.size() - at);
        std::memcpy(self.samples_.data() + at, data, count * sizeof(float));
        self.written_.store(at + count);
        return 0;
    }

    jack_client_t* client_ = nullptr;
    jack_port_t* port_ = nullptr;
    std::vector<float> samples_;
    std::atomic<std::size_t> written_{0};
};
