// The program's only loop, and the components that it feeds.
//
// Main thread only, except isRunning() and stop(), which a signal handler may call.
#pragma once

#include <array>
#include <atomic>
#include <cstddef>
#include <memory>
#include <optional>
#include <string>

#include "filelog/file_logger.h"
#include "net/net_receiver.h"
#include "records/qos_packet.h"
#include "records/voice_packet.h"
#include "web/web_client.h"

class ConfigFile;

class MainLoop {
public:
    // Builds receiver, file logger and web client and reads the unit's serial number. When a socket
    // cannot be opened, logs the reason and exits with status 0. Throws std::bad_alloc. The
    // configuration must outlive the object.
    explicit MainLoop(ConfigFile* main_config);

    // Deletes receiver, file logger and web client, in this order.
    ~MainLoop();
    MainLoop(const MainLoop&) = delete;
    MainLoop& operator=(const MainLoop&) = delete;

    // Runs until stop() is called, then stops receiver, file logger and web client, in this order.
    // Once per process. An earlier stop() has no effect, because the flag is set here.
    void start();

    // stop() ends the loop after the current pass; isRunning() is true until then. Any thread, and
    // signal handlers: the flag is a lock-free atomic.
    static bool isRunning() { return running; }
    static void stop() { running = false; }

private:
    static constexpr std::size_t BUFFER_SIZE = 32768;

    void build_components();
    void read_serial_number();
    void drain_qos_socket();
    void drain_voice_socket();
    void write_voice_records(std::size_t datagram_size);
    void send_service_reports();
    void stop_components();

    static std::atomic<bool> running;
    static_assert(std::atomic<bool>::is_always_lock_free);

    ConfigFile* config;  // not owned
    std::unique_ptr<NetReceiver> receiver;
    std::unique_ptr<FileLogger> file_logger;
    std::unique_ptr<WebClient> web_client;
    std::string serial_number;  // read once, at the start; empty when unknown

    // Allocated once for the whole run. A voice datagram needs no further allocation, and a report
    // only those of its two lines, unless a buffer has to grow or a message is logged.
    std::array<char, BUFFER_SIZE> buffer;  // every datagram, and the service reports
    std::optional<QoSPacket> report;       // built and destroyed in place
    VoicePacket voice_packet;              // reused for every record
};

// Writes a synthetic report of a session without loss, or with total loss, into the buffer, which
// must hold 512 bytes. Returns its length, or -1 when the buffer is null. Any thread.
int min_loss_packet(char* buffer);
int max_loss_packet(char* buffer);
