// A private jackd (dummy backend, 48 kHz, its own name) that dies with the
// program, with a fresh shared JACK device backend.
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

#include "KROJACKAudioDeviceBackend.h"

class KROJACKTestServer {
public:
    KROJACKTestServer() = default;
    KROJACKTestServer(const KROJACKTestServer&) = delete;
    KROJACKTestServer& operator=(const KROJACKTestServer&) = delete;
    ~KROJACKTestServer() { stop(); }

    // A name that no server has: this process's number and a count.
    static std::string uniqueName() {
        static int counter = 0;
        return "kro-test-" + std::to_string(getpid()) + "-" + std::to_string(++counter);
    }

    // Under SCHED_FIFO when realtime; waits at most 10 s for an answer.
    bool start(unsigned frames = 256, bool realtime = false) {
        // libjack would report each failed probe on standard error.
        jack_set_error_function([](const char*) {});
        jack_set_info_function([](const char*) {});
        const std::string name = uniqueName();
        const std::string period = std::to_string(frames);
        setenv("JACK_NO_AUDIO_RESERVATION", "1", 1);
        pid_ = fork();
        if (pid_ == 0) {
            prctl(PR_SET_PDEATHSIG, SIGKILL);
            // The server's chatter would bury the test output.
            dup2(open("/dev/null", O_WRONLY), STDOUT_FILENO);
            dup2(STDOUT_FILENO, STDERR_FILENO);
            execlp("jackd", "jackd", "-n", name.c_str(), realtime ? "-R" : "--no-realtime", "-d",
                   "dummy", "-r", "48000", "-p", period.c_str(), static_cast<char*>(nullptr));
            _exit(127);
        }
        setenv("JACK_DEFAULT_SERVER", name.c_str(), 1);
        for (int attempt = 0; pid_ > 0 && attempt < 200; ++attempt) {
            jack_status_t status{};
            if (jack_client_t* probe = jack_client_open("kro-probe", JackNoStartServer, &status)) {
                jack_client_close(probe);
                KROAudioDeviceBackend::setSharedBackend(
                    std::make_shared<KROJACKAudioDeviceBackend>());
                return true;
            }
            std::this_thread::sleep_for(std::chrono::milliseconds(50));
        }
        return false;
    }

    // The device layer goes first, so that its clients close cleanly.
    void stop() {
        KROAudioDeviceBackend::setSharedBackend(nullptr);
        kill();
    }

    // The server alone goes, as when it dies under a running host: the
    // device layer stays and must notice. SIGTERM, so that the server clears
    // its shared memory; a hang meets the alarm.
    void kill() {
        if (pid_ > 0) {
            ::kill(pid_, SIGTERM);
            waitpid(pid_, nullptr, 0);
        }
        pid_ = 0;
    }

private:
    pid_t pid_ = 0;
};
