// DNS messages (RFC 1035), as far as these answers need them.
#include "NameServer.h"

#include <array>
#include <stdexcept>

#include <arpa/inet.h>
#include <netinet/in.h>
#include <poll.h>
#include <sys/eventfd.h>
#include <sys/socket.h>

namespace SolvaneTest {

namespace {

constexpr unsigned int typeA = 1;
constexpr unsigned int typeAaaa = 28;
constexpr unsigned int typeSrv = 33;
constexpr unsigned int nameError = 3;
constexpr std::size_t headerSize = 12;

std::string number(unsigned int value, int bytes)
{
    std::string text;
    for (int shift = 8 * (bytes - 1); shift >= 0; shift -= 8) {
        text.push_back(static_cast<char>(value >> shift & 0xFF));
    }
    return text;
}

/// A name as labels.
std::string encoded(std::string const& name)
{
    std::string labels;
    std::string::size_type begin = 0;
    while (begin < name.size()) {
        auto const end = std::min(name.find('.', begin), name.size());
        labels +=
            number(static_cast<unsigned int>(end - begin), 1) + name.substr(begin, end - begin);
        begin = end + 1;
    }
    return labels + '\0';
}

/// The name of the question behind the header.
std::string decoded(std::string const& question)
{
    std::string name;
    std::size_t position = headerSize;
    while (position < question.size() && question[position] != '\0') {
        auto const length = static_cast<unsigned char>(question[position]);
        name += (name.empty() ? "" : ".") + question.substr(position + 1, length);
        position += 1U + length;
    }
    return name;
}

} // namespace

NameServer::NameServer()
    : m_socket(checked(socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0), "socket")),
      m_stop(checked(eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK), "eventfd")), m_port(0)
{
    sockaddr_in address = {};
    address.sin_family = AF_INET;
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    socklen_t length = sizeof address;
    auto* const any = reinterpret_cast<sockaddr*>(&address);
    checked(bind(m_socket.number(), any, length), "bind");
    checked(getsockname(m_socket.number(), any, &length), "getsockname");
    m_port = ntohs(address.sin_port);
    m_thread = std::thread([this] { serve(); });
}

NameServer::~NameServer()
{
    eventfd_write(m_stop.number(), 1);
    m_thread.join();
}

std::string NameServer::address() const { return "127.0.0.1:" + std::to_string(m_port); }

void NameServer::add(std::string const& name, std::vector<std::string> const& addresses)
{
    std::lock_guard<std::mutex> const lock(m_mutex);
    for (std::string const& address : addresses) {
        std::array<char, sizeof(in6_addr)> bytes{};
        bool const isV6 = address.find(':') != std::string::npos;
        if (inet_pton(isV6 ? AF_INET6 : AF_INET, address.c_str(), bytes.data()) != 1) {
            throw std::invalid_argument(address);
        }
        m_records.emplace(
            name, Record{isV6 ? typeAaaa : typeA,
                         std::string(bytes.data(), isV6 ? sizeof(in6_addr) : sizeof(in_addr))});
    }
}

void NameServer::addService(std::string const& name, unsigned int priority, unsigned int weight,
                            unsigned int port, std::string const& host)
{
    std::lock_guard<std::mutex> const lock(m_mutex);
    m_records.emplace(name, Record{typeSrv, number(priority, 2) + number(weight, 2) +
                                                number(port, 2) + encoded(host)});
}

void NameServer::fallSilent()
{
    std::lock_guard<std::mutex> const lock(m_mutex);
    m_isSilent = true;
}

void NameServer::fail(unsigned int code)
{
    std::lock_guard<std::mutex> const lock(m_mutex);
    m_code = code;
}

void NameServer::recover()
{
    std::lock_guard<std::mutex> const lock(m_mutex);
    m_isSilent = false;
    m_code = 0;
}

std::vector<std::string> NameServer::asked() const
{
    std::lock_guard<std::mutex> const lock(m_mutex);
    return m_asked;
}

void NameServer::serve()
{
    std::array<pollfd, 2> waited = {pollfd{m_socket.number(), POLLIN, 0},
                                    pollfd{m_stop.number(), POLLIN, 0}};
    for (;;) {
        poll(waited.data(), waited.size(), -1);
        if (waited[1].revents != 0) {
            return;
        }
        std::array<char, 512> bytes;
        sockaddr_in client = {};
        socklen_t length = sizeof client;
        auto* const any = reinterpret_cast<sockaddr*>(&client);
        ssize_t const count =
            recvfrom(m_socket.number(), bytes.data(), bytes.size(), 0, any, &length);
        if (count <= static_cast<ssize_t>(headerSize)) {
            continue;
        }
        std::string const answer =
            answerTo(std::string(bytes.data(), static_cast<std::size_t>(count)));
        if (!answer.empty()) {
            sendto(m_socket.number(), answer.data(), answer.size(), 0, any, length);
        }
    }
}

std::string NameServer::answerTo(std::string const& question)
{
    std::string const name = decoded(question);
    std::size_t const typePosition = headerSize + encoded(name).size();
    unsigned int const type = static_cast<unsigned char>(question.at(typePosition + 1));
    std::lock_guard<std::mutex> const lock(m_mutex);
    m_asked.push_back(name);
    if (m_isSilent) {
        return std::string();
    }
    unsigned int count = 0;
    std::string records;
    auto const [begin, end] = m_records.equal_range(name);
    for (auto record = begin; record != end && m_code == 0; ++record) {
        if (record->second.type == type) {
            constexpr unsigned int pointerToQuestion = 0xC000 | headerSize;
            constexpr unsigned int internet = 1;
            constexpr unsigned int secondsToLive = 60;
            std::string const& content = record->second.content;
            records += number(pointerToQuestion, 2) + number(type, 2) + number(internet, 2) +
                       number(secondsToLive, 4) +
                       number(static_cast<unsigned int>(content.size()), 2) + content;
            ++count;
        }
    }
    unsigned int const code = m_code != 0 ? m_code : begin == end ? nameError : 0;
    constexpr unsigned int answerWithRecursion = 0x8180;
    return question.substr(0, 2) + number(answerWithRecursion | code, 2) + number(1, 2) +
           number(count, 2) + number(0, 4) +
           question.substr(headerSize, typePosition + 4 - headerSize) + records;
}

} // namespace SolvaneTest
