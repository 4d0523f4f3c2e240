/// An agent that reads one request and sends a prepared answer, for tests of the tool.
#ifndef UNIT_CTL_FAKE_AGENT_H
#define UNIT_CTL_FAKE_AGENT_H

#include <gtest/gtest.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <cstring>
#include <functional>
#include <sstream>
#include <string>
#include <thread>
#include <vector>

#include "control_protocol/frame.h"

class fake_agent {
  public:
    /// Each connection gets the next of the answers. An answer consists of JSON documents, one per line, which are sent
    /// as frames; "" closes the connection without an answer, and a last line "..." waits until the peer closes it.
    explicit fake_agent(std::vector<std::string> given, size_t read_limit = SIZE_MAX)
        : answers(std::move(given)), request_limit(read_limit) {
        listener = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
        sockaddr_un address = {};
        address.sun_family = AF_UNIX;
        path().copy(address.sun_path, sizeof address.sun_path - 1);
        unlink(path().c_str());
        EXPECT_EQ(0, bind(listener, reinterpret_cast<const sockaddr*>(&address), sizeof address));
        EXPECT_EQ(0, listen(listener, 16));
        thread = std::thread([this] { serve(); });
    }
    ~fake_agent() {
        shutdown(listener, SHUT_RDWR);
        thread.join();
        close(listener);
        unlink(path().c_str());
    }
    fake_agent(const fake_agent&) = delete;
    fake_agent& operator=(const fake_agent&) = delete;

    static std::string path() { return testing::TempDir() + "fake_agent_" + std::to_string(getpid()) + ".sock"; }

    /// The requests so far; to be read after the tool has ended.
    std::vector<std::string> requests;

  private:
    void serve() {
        for (const std::string& answer : answers) {
            const int fd = accept4(listener, nullptr, nullptr, SOCK_CLOEXEC);
            if (fd < 0) {
                return;
            }
            read_request(fd);
            std::istringstream documents(answer);
            for (std::string document; std::getline(documents, document);) {
                send_document(fd, document);
            }
            close(fd);
        }
    }

    static void send_document(int fd, const std::string& document) {
        char byte = 0;
        if (document == "...") {
            EXPECT_LE(recv(fd, &byte, 1, 0), 0);
            return;
        }
        const auto header = control_frame_header(static_cast<uint32_t>(document.size()));
        const std::string frame = std::string(header.begin(), header.end()) + document;
        const ssize_t sent = send(fd, frame.data(), frame.size(), MSG_NOSIGNAL);
        // An interrupted tool has closed the connection.
        EXPECT_TRUE(sent == static_cast<ssize_t>(frame.size()) || errno == EPIPE || errno == ECONNRESET);
    }

    void read_request(int fd) {
        control_frame_reader reader;
        char buffer[65536];
        for (size_t total = 0;
             control_frame_progress(reader) == control_frame_state::incomplete && total < request_limit;) {
            const ssize_t count = recv(fd, buffer, std::min(control_frame_missing(reader), sizeof buffer), 0);
            if (count <= 0) {
                return;
            }
            control_frame_take(reader, std::string_view(buffer, static_cast<size_t>(count)));
            total += static_cast<size_t>(count);
        }
        requests.push_back(reader.document);
    }

    std::vector<std::string> answers;
    size_t request_limit;
    int listener;
    std::thread thread;
};

#endif
