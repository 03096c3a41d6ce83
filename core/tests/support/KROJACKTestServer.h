// A private JACK server for the tests of Part 9.1, of the kro program and of
// the device benchmark: jackd with the dummy backend under a name of its own,
// so that a test never touches a user's server. The server dies with the
// program that started it (PR_SET_PDEATHSIG), and the shared device backend
// is replaced by a fresh JACK backend bound to it.
#pragma once

#include <fcntl.h>
#include <jack/jack.h>
#include <signal.h>
#include <sys/prctl.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <cstdlib>
#include <string>
#include <thread>

#include "KROAudioDeviceBackend.h"
#include "KROJACKAudioDeviceBackend.h"

class KROJACKTestServer {
public:
    KROJACKTestServer() = default;
    KROJACKTestServer(const KROJACKTestServer&) = delete;
    KROJACKTestServer& operator=(const KROJACKTestServer&) = delete;
    ~KROJACKTestServer() { stop(); }

    // A unique server name for this process and call.
    static std::string uniqueName() {
        static int counter = 0;
        return "kro-test-" + std::to_string(getpid()) + "-" + std::to_string(++counter);
    }

    // Whether the next start runs the server and its clients' process
    // threads under SCHED_FIFO (jackd -R); by default they are ordinary.
    void setRealtime(bool realtime) { realtime_ = realtime; }

    // Starts jackd and waits until a client can open, at most timeout.
    bool start(unsigned frames = 256, unsigned rate = 48000,
               std::chrono::seconds timeout = std::chrono::seconds(10)) {
        // The probes fail until the server is up; libjack would say so on
        // standard error each time.
        jack_set_error_function(silent);
        jack_set_info_function(silent);
        name_ = uniqueName();
        pid_ = fork();
        if (pid_ == 0) {
            prctl(PR_SET_PDEATHSIG, SIGKILL);
            setenv("JACK_NO_AUDIO_RESERVATION", "1", 1);
            // The server's chatter would bury the test output.
            const int null = open("/dev/null", O_WRONLY);
            dup2(null, STDOUT_FILENO);
            dup2(null, STDERR_FILENO);
            const std::string period = std::to_string(frames);
            const std::string sampleRate = std::to_string(rate);
            execlp("jackd", "jackd", "-n", name_.c_str(), realtime_ ? "-R" : "--no-realtime", "-d",
                   "dummy", "-r", sampleRate.c_str(), "-p", period.c_str(),
                   static_cast<char*>(nullptr));
            _exit(127);
        }
        if (pid_ < 0) {
            return false;
        }
        setenv("JACK_DEFAULT_SERVER", name_.c_str(), 1);
        const auto deadline = std::chrono::steady_clock::now() + timeout;
        while (std::chrono::steady_clock::now() < deadline) {
            if (answers()) {
                KROAudioDeviceBackend::setSharedBackend(
                    std::make_shared<KROJACKAudioDeviceBackend>());
                return true;
            }
            std::this_thread::sleep_for(std::chrono::milliseconds(50));
        }
        return false;
    }

    // Kills the server: SIGTERM, then SIGKILL after two seconds.
    void stop() {
        KROAudioDeviceBackend::setSharedBackend(nullptr);
        if (pid_ <= 0) {
            return;
        }
        kill(pid_, SIGTERM);
        for (int i = 0; i < 40; ++i) {
            if (waitpid(pid_, nullptr, WNOHANG) == pid_) {
                pid_ = 0;
                return;
            }
            std::this_thread::sleep_for(std::chrono::milliseconds(50));
        }
        kill(pid_, SIGKILL);
        waitpid(pid_, nullptr, 0);
        pid_ = 0;
    }

    const std::string& name() const { return name_; }

private:
    static void silent(const char*) {}

    bool answers() const {
        jack_status_t status{};
        jack_client_t* client =
            jack_client_open("kro-test-probe", jack_options_t(JackNoStartServer | JackServerName),
                             &status, name_.c_str());
        if (!client) {
            return false;
        }
        jack_client_close(client);
        return true;
    }

    std::string name_;
    pid_t pid_ = 0;
    bool realtime_ = false;
};
