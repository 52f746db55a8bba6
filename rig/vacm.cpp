/// A virtual USB serial device: simulates one CDC ACM function for the kernel's virtual host controller, so
/// that the kernel's own cdc_acm driver makes it /dev/ttyACM..., and offers the device's end of the line as a
/// pty, which hangs up when the device is unplugged.
///
///     driver_vacm [OPTION...] play PATH    runs it; PATH links to the pty, PATH.sock takes orders
///         -p PORT   port of the virtual hub, 0 to 7, another one for each device (default 0)
///         -d MS     accepts a transfer MS milliseconds after it became the first in line (default 0)
///         -m TEXT   manufacturer (default: the fiscal device's)
///         -s TEXT   serial number (default: none)
///     driver_vacm tell PATH ORDER          gives it an order and prints the answer:
///         delay MS | hold | release | unplug | plug | stats | when taken|given BYTES MS ORDER
///
/// After `hold` it accepts nothing until `release`. `stats` counts what it accepted, what the host cancelled
/// before that, and what it sent. `when` carries out ORDER once: MS milliseconds after it has taken (given)
/// BYTES more bytes; a later `when` replaces it.
///
/// Sources of the numbers: the Linux kernel's document usbip_protocol (messages of the host controller),
/// USB 2.0, chapter 9 (control requests, descriptors), and the USB communications class's subclass for PSTN
/// devices 1.2 (requests and descriptors of the serial line).

#include <arpa/inet.h>
#include <fcntl.h>
#include <poll.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <termios.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <chrono>
#include <csignal>
#include <cstdint>
#include <cstdio>
#include <cstring>
#include <deque>
#include <iostream>
#include <optional>
#include <sstream>
#include <string>
#include <system_error>
#include <utility>
#include <vector>

#include "Descriptor.h"

namespace {

using Clock = std::chrono::steady_clock;

Clock::duration milliseconds(double count) {
    return std::chrono::duration_cast<Clock::duration>(std::chrono::duration<double, std::milli>(count));
}

// usbip_protocol: every message begins with twelve 32-bit words, the most significant byte first.
enum Word { COMMAND, SEQNUM, DEVICE_ID, DIRECTION, ENDPOINT, FIRST_OF_COMMAND };
constexpr int UNLINKED_SEQNUM = FIRST_OF_COMMAND;      // of CMD_UNLINK
constexpr int TRANSFER_LENGTH = FIRST_OF_COMMAND + 1;  // of CMD_SUBMIT
constexpr int SETUP = FIRST_OF_COMMAND + 5;            // of CMD_SUBMIT, two words
constexpr int STATUS = FIRST_OF_COMMAND;               // of RET_SUBMIT and RET_UNLINK
constexpr int ACTUAL_LENGTH = FIRST_OF_COMMAND + 1;    // of RET_SUBMIT
using Header = std::array<std::uint32_t, 12>;
enum Command : std::uint32_t { CMD_SUBMIT = 1, CMD_UNLINK = 2, RET_SUBMIT = 3, RET_UNLINK = 4 };
constexpr std::uint32_t DIRECTION_IN = 1;
constexpr int SPEED_HIGH = 3;  // the kernel's enum usb_device_speed

// USB 2.0, chapter 9; a request is named by bmRequestType * 256 + bRequest.
enum Request {
    SET_CONFIGURATION = 0x0009,
    GET_DEVICE_STATUS = 0x8000,
    GET_DESCRIPTOR = 0x8006,
    SET_LINE_CODING = 0x2120,  // PSTN 1.2, section 6.3, also for the next
    SET_CONTROL_LINE_STATE = 0x2122
};
enum DescriptorType {
    DEVICE = 1,
    CONFIGURATION = 2,
    STRING = 3,
    INTERFACE = 4,
    INTERFACE_ENDPOINT = 5,
    INTERFACE_ASSOCIATION = 11,
    CLASS_INTERFACE = 0x24  // PSTN 1.2, section 5.3
};
enum StringIndex { LANGUAGES, MANUFACTURER, PRODUCT, SERIAL_NUMBER };
constexpr std::uint32_t NOTIFICATION_ENDPOINT = 2;
constexpr std::uint32_t DATA_ENDPOINT = 1;  // both ways

const std::string REFUSAL = "refused: ";  // begins the answer to an order that was not carried out

// Limit of the bytes that wait here for the reader of the pty, and for the host.
constexpr std::size_t READER_LIMIT = 65536;
constexpr std::size_t HOST_LIMIT = 65536;

[[noreturn]] void fail(const std::string& what) {
    throw std::system_error(errno, std::generic_category(), what);
}

using tool::Descriptor;

Descriptor required(int fd, const std::string& what) {
    if (fd < 0) fail(what);
    return Descriptor(fd);
}

struct Options {
    int port = 0;
    Clock::duration delay{0};
    std::string manufacturer = "Linux 3.4.39-mfc+ with musb-hdrc";
    std::string serialNumber;
};

/// A transfer that the host has asked for and that has not ended yet.
struct Transfer {
    std::uint32_t seqnum;
    std::uint32_t length;
    std::string data;  ///< of a transfer to the device
};

/// An order that waits for bytes to move, and then for some time.
struct PendingOrder {
    std::uint64_t& count;
    std::uint64_t awaitedCount;
    Clock::duration delay;
    std::string order;
    std::optional<Clock::time_point> due;  ///< set once the bytes have moved
};

class VirtualDevice {
  public:
    VirtualDevice(const Options& options, const std::string& path);
    [[noreturn]] void run();

  private:
    void openLine();
    void plug();
    void unplug();
    bool isPlugged() const { return m_host.get() >= 0; }
    void forgetHost();

    bool readFromHost(void* data, std::size_t length);
    void takeMessage();
    void submitted(const Header& header, std::string data);
    void unlinked(const Header& header);
    void reply(Command command, std::uint32_t seqnum, int status, std::size_t actual,
               const std::string& data = {});
    void control(const Header& header);
    std::optional<std::string> controlAnswer(const Header& header) const;
    std::optional<std::string> descriptor(int type, int index) const;

    bool mayTake() const { return !m_out.empty() && !m_held && m_toReader.size() < READER_LIMIT; }
    void takeFromHost();
    void giveToHost();
    void serveReader(short events);
    void waitForEvents();
    void answer(int client, const std::string& order);
    std::string obey(const std::string& order);
    bool postpone(std::istream& words);
    void obeyPending();
    std::optional<Clock::time_point> nextDeadline() const;

    Options m_options;
    std::string m_path;
    Descriptor m_pty, m_terminal, m_orders;
    Descriptor m_host;  ///< closed while the device is unplugged

    std::deque<Transfer> m_out, m_in, m_notifications;
    Clock::time_point m_firstSince;  ///< when the first of m_out became the first
    bool m_held = false;
    std::string m_toReader, m_toHost;
    std::optional<PendingOrder> m_pending;

    std::uint64_t m_takenTransfers = 0, m_takenBytes = 0, m_cancelledTransfers = 0, m_cancelledBytes = 0,
                  m_givenBytes = 0;
};

sockaddr_un addressOfOrders(const std::string& path) {
    const std::string name = path + ".sock";
    sockaddr_un address{};
    if (name.size() >= sizeof address.sun_path) throw std::runtime_error("path too long: " + path);
    address.sun_family = AF_UNIX;
    name.copy(address.sun_path, name.size());
    return address;
}

Descriptor listenForOrders(const std::string& path) {
    Descriptor fd = required(socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0), "socket");
    const sockaddr_un address = addressOfOrders(path);
    unlink(address.sun_path);
    if (bind(fd.get(), reinterpret_cast<const sockaddr*>(&address), sizeof address)) fail(address.sun_path);
    if (listen(fd.get(), 4)) fail(address.sun_path);
    return fd;
}

VirtualDevice::VirtualDevice(const Options& options, const std::string& path)
    : m_options(options), m_path(path) {
    plug();
    m_orders = listenForOrders(path);
}

void VirtualDevice::openLine() {
    m_pty = required(posix_openpt(O_RDWR | O_NOCTTY | O_NONBLOCK | O_CLOEXEC), "pty");
    if (grantpt(m_pty.get()) || unlockpt(m_pty.get())) fail("pty");
    const char* name = ptsname(m_pty.get());
    // Kept open so that the pty does not hang up when its reader closes it.
    m_terminal = required(open(name, O_RDWR | O_NOCTTY | O_CLOEXEC), name);
    termios mode;
    if (tcgetattr(m_terminal.get(), &mode)) fail(name);
    cfmakeraw(&mode);
    if (tcsetattr(m_terminal.get(), TCSANOW, &mode)) fail(name);
    unlink(m_path.c_str());
    if (symlink(name, m_path.c_str())) fail(m_path);
}

/// Writes a line to a file of the virtual host controller.
void tellController(const std::string& file, const std::string& line) {
    const std::string path = "/sys/devices/platform/vhci_hcd.0/" + file;
    Descriptor fd = required(open(path.c_str(), O_WRONLY), path);
    if (write(fd.get(), line.data(), line.size()) < 0) fail(path);
}

void VirtualDevice::plug() {
    if (isPlugged()) return;
    openLine();
    std::array<int, 2> ends;
    if (socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, ends.data())) fail("socketpair");
    m_host = Descriptor(ends[0]);
    Descriptor controllersEnd(ends[1]);  // the controller takes a reference of its own
    std::ostringstream line;
    line << m_options.port << ' ' << controllersEnd.get() << ' ' << m_options.port + 1 << ' ' << SPEED_HIGH;
    tellController("attach", line.str());
}

void VirtualDevice::unplug() {
    if (!isPlugged()) return;
    tellController("detach", std::to_string(m_options.port));
    forgetHost();
}

void VirtualDevice::forgetHost() {
    m_host = Descriptor();
    m_pty = Descriptor();
    m_terminal = Descriptor();
    unlink(m_path.c_str());
    m_out.clear();
    m_in.clear();
    m_notifications.clear();
    m_toReader.clear();
    m_toHost.clear();
}

/// Reads exactly `length` bytes. False if the host controller has gone.
bool VirtualDevice::readFromHost(void* data, std::size_t length) {
    char* next = static_cast<char*>(data);
    while (length > 0) {
        const ssize_t count = read(m_host.get(), next, length);
        if (count < 0 && errno == EINTR) continue;
        if (count <= 0) return false;
        next += count;
        length -= static_cast<std::size_t>(count);
    }
    return true;
}

void VirtualDevice::reply(Command command, std::uint32_t seqnum, int status, std::size_t actual,
                          const std::string& data) {
    Header header{};
    header[COMMAND] = htonl(command);
    header[SEQNUM] = htonl(seqnum);
    header[STATUS] = htonl(static_cast<std::uint32_t>(status));
    if (command == RET_SUBMIT) header[ACTUAL_LENGTH] = htonl(static_cast<std::uint32_t>(actual));
    std::string message(reinterpret_cast<const char*>(header.data()), sizeof header);
    message += data;
    for (std::size_t sent = 0; sent < message.size();) {
        const ssize_t count = send(m_host.get(), message.data() + sent, message.size() - sent, MSG_NOSIGNAL);
        if (count < 0 && errno != EINTR) return;  // unplugged; the next read sees it
        if (count > 0) sent += static_cast<std::size_t>(count);
    }
}

void VirtualDevice::takeMessage() {
    Header header;
    if (!readFromHost(header.data(), sizeof header)) return forgetHost();
    for (int i = 0; i < SETUP; ++i) header[i] = ntohl(header[i]);
    if (header[COMMAND] == CMD_UNLINK) return unlinked(header);
    if (header[COMMAND] != CMD_SUBMIT) throw std::runtime_error("command " + std::to_string(header[COMMAND]));
    std::string data(header[DIRECTION] == DIRECTION_IN ? 0 : header[TRANSFER_LENGTH], '\0');
    if (!readFromHost(data.data(), data.size())) return forgetHost();
    submitted(header, std::move(data));
}

void VirtualDevice::submitted(const Header& header, std::string data) {
    const bool in = header[DIRECTION] == DIRECTION_IN;
    Transfer transfer{header[SEQNUM], header[TRANSFER_LENGTH], std::move(data)};
    switch (header[ENDPOINT]) {
        case 0: return control(header);
        case DATA_ENDPOINT:
            if (!in && m_out.empty()) m_firstSince = Clock::now();
            (in ? m_in : m_out).push_back(std::move(transfer));
            return;
        case NOTIFICATION_ENDPOINT: m_notifications.push_back(std::move(transfer)); return;
        default: reply(RET_SUBMIT, header[SEQNUM], -EPIPE, 0);
    }
}

std::optional<Transfer> removeTransfer(std::deque<Transfer>& queue, std::uint32_t seqnum) {
    const auto found = std::find_if(queue.begin(), queue.end(),
                                    [&](const Transfer& transfer) { return transfer.seqnum == seqnum; });
    if (found == queue.end()) return std::nullopt;
    std::optional<Transfer> transfer = std::move(*found);
    queue.erase(found);
    return transfer;
}

void VirtualDevice::unlinked(const Header& header) {
    const std::uint32_t seqnum = header[UNLINKED_SEQNUM];
    const bool wasFirst = !m_out.empty() && m_out.front().seqnum == seqnum;
    if (wasFirst) m_firstSince = Clock::now();
    std::optional<Transfer> transfer = removeTransfer(m_out, seqnum);
    if (transfer) {
        ++m_cancelledTransfers;
        m_cancelledBytes += transfer->length;
    }
    if (!transfer) transfer = removeTransfer(m_in, seqnum);
    if (!transfer) transfer = removeTransfer(m_notifications, seqnum);
    reply(RET_UNLINK, header[SEQNUM], transfer ? -ECONNRESET : 0, 0);
}

void VirtualDevice::control(const Header& header) {
    std::optional<std::string> answer = controlAnswer(header);
    if (!answer) return reply(RET_SUBMIT, header[SEQNUM], -EPIPE, 0);
    if (header[DIRECTION] != DIRECTION_IN)
        return reply(RET_SUBMIT, header[SEQNUM], 0, header[TRANSFER_LENGTH]);
    answer->resize(std::min<std::size_t>(answer->size(), header[TRANSFER_LENGTH]));
    reply(RET_SUBMIT, header[SEQNUM], 0, answer->size(), *answer);
}

/// The answer to a control request, which may be empty; none for a request that the driver never makes.
std::optional<std::string> VirtualDevice::controlAnswer(const Header& header) const {
    std::array<std::uint8_t, 8> setup;  // bmRequestType, bRequest, wValue, wIndex, wLength
    std::memcpy(setup.data(), &header[SETUP], setup.size());
    switch (setup[0] << 8 | setup[1]) {
        case GET_DESCRIPTOR: return descriptor(setup[3], setup[2]);
        case GET_DEVICE_STATUS: return std::string(2, '\0');
        case SET_CONFIGURATION:
        case SET_LINE_CODING:
        case SET_CONTROL_LINE_STATE: return "";
        default: return std::nullopt;
    }
}

std::string describe(DescriptorType type, std::initializer_list<std::uint8_t> fields) {
    std::string bytes{static_cast<char>(2 + fields.size()), static_cast<char>(type)};
    bytes.append(fields.begin(), fields.end());
    return bytes;
}

std::string describeText(const std::string& text) {
    std::string bytes{static_cast<char>(2 + 2 * text.size()), STRING};
    for (const char character : text) bytes += {character, '\0'};  // UTF-16LE of ASCII
    return bytes;
}

std::string describeConfiguration() {
    const std::string parts =
        describe(INTERFACE_ASSOCIATION, {0, 2, 2, 2, 1, 0}) +  // both interfaces are one function
        describe(INTERFACE, {0, 0, 1, 2, 2, 1, 0}) +           // communications: abstract control model
        describe(CLASS_INTERFACE, {0x00, 0x10, 1}) +           // header: release 1.10
        describe(CLASS_INTERFACE, {0x01, 0, 1}) +              // call management: none
        describe(CLASS_INTERFACE, {0x02, 2}) +                 // abstract control: line coding and state
        describe(CLASS_INTERFACE, {0x06, 0, 1}) +              // union of both interfaces
        describe(INTERFACE_ENDPOINT, {0x80 | NOTIFICATION_ENDPOINT, 3, 10, 0, 9}) +
        describe(INTERFACE, {1, 0, 2, 10, 0, 0, 0}) +                       // data
        describe(INTERFACE_ENDPOINT, {0x80 | DATA_ENDPOINT, 2, 0, 2, 0}) +  // bulk, packets of 512 bytes
        describe(INTERFACE_ENDPOINT, {DATA_ENDPOINT, 2, 0, 2, 0});
    constexpr std::size_t OWN_SIZE = 9;
    const auto size = static_cast<std::uint8_t>(OWN_SIZE + parts.size());
    return describe(CONFIGURATION, {size, 0, 2, 1, 0, 0xc0, 1}) + parts;  // two interfaces, self-powered
}

std::string describeDevice(bool hasSerialNumber) {
    const std::uint8_t serialNumber = hasSerialNumber ? SERIAL_NUMBER : 0;
    return describe(DEVICE, {0x00, 0x02, 2, 0, 0, 64,  // USB 2.0, communications class
                             0x25, 0x05, 0xa6, 0xa4,   // vendor 0525, product a4a6
                             4, 3, MANUFACTURER, PRODUCT, serialNumber, 1});
}

std::optional<std::string> VirtualDevice::descriptor(int type, int index) const {
    switch (type) {
        case DEVICE: return describeDevice(!m_options.serialNumber.empty());
        case CONFIGURATION: return describeConfiguration();
        case STRING: break;
        default: return std::nullopt;
    }
    switch (index) {
        case LANGUAGES: return describe(STRING, {0x09, 0x04});  // US English
        case MANUFACTURER: return describeText(m_options.manufacturer);
        case PRODUCT: return describeText("Gadget Serial v2.4");
        case SERIAL_NUMBER: return describeText(m_options.serialNumber);
        default: return std::nullopt;
    }
}

void VirtualDevice::takeFromHost() {
    while (mayTake() && Clock::now() >= m_firstSince + m_options.delay) {
        const Transfer transfer = std::move(m_out.front());
        m_out.pop_front();
        m_firstSince = Clock::now();
        m_toReader += transfer.data;
        ++m_takenTransfers;
        m_takenBytes += transfer.length;
        reply(RET_SUBMIT, transfer.seqnum, 0, transfer.length);
    }
}

void VirtualDevice::giveToHost() {
    while (!m_toHost.empty() && !m_in.empty()) {
        const Transfer transfer = std::move(m_in.front());
        m_in.pop_front();
        const std::string data = m_toHost.substr(0, transfer.length);
        m_toHost.erase(0, data.size());
        m_givenBytes += data.size();
        reply(RET_SUBMIT, transfer.seqnum, 0, data.size(), data);
    }
}

void VirtualDevice::serveReader(short events) {
    if (events & POLLOUT) {
        const ssize_t count = write(m_pty.get(), m_toReader.data(), m_toReader.size());
        if (count > 0) m_toReader.erase(0, static_cast<std::size_t>(count));
    }
    if (events & POLLIN) {
        std::array<char, 4096> chunk;
        const ssize_t count = read(m_pty.get(), chunk.data(), chunk.size());
        if (count > 0) m_toHost.append(chunk.data(), static_cast<std::size_t>(count));
    }
}

std::string VirtualDevice::obey(const std::string& order) {
    std::istringstream words(order);
    std::string verb;
    words >> verb;
    double delayMs;
    if (verb == "delay" && words >> delayMs) {
        m_options.delay = milliseconds(delayMs);
    } else if (verb == "hold") {
        m_held = true;
    } else if (verb == "release") {
        m_held = false;
    } else if (verb == "unplug") {
        unplug();
    } else if (verb == "plug") {
        plug();
    } else if (verb == "stats") {
        std::ostringstream stats;
        stats << "taken " << m_takenBytes << " bytes in " << m_takenTransfers << " transfers, cancelled "
              << m_cancelledBytes << " in " << m_cancelledTransfers << ", given " << m_givenBytes
              << " bytes\n";
        return stats.str();
    } else if (verb != "when" || !postpone(words)) {
        return REFUSAL + order + "\n";
    }
    return "";
}

/// Takes an order from the words after `when`. False if they make no sense.
bool VirtualDevice::postpone(std::istream& words) {
    std::string direction, order;
    std::uint64_t bytes;
    double delayMs;
    if (!(words >> direction >> bytes >> delayMs) || !std::getline(words >> std::ws, order)) return false;
    if (direction != "taken" && direction != "given") return false;
    std::uint64_t& count = direction == "taken" ? m_takenBytes : m_givenBytes;
    m_pending.emplace(PendingOrder{count, count + bytes, milliseconds(delayMs), order, std::nullopt});
    return true;
}

void VirtualDevice::obeyPending() {
    if (!m_pending || m_pending->count < m_pending->awaitedCount) return;
    if (!m_pending->due) m_pending->due = Clock::now() + m_pending->delay;
    if (Clock::now() < *m_pending->due) return;
    const std::string order = m_pending->order;
    m_pending.reset();
    std::cerr << obey(order);
}

std::optional<Clock::time_point> VirtualDevice::nextDeadline() const {
    std::optional<Clock::time_point> deadline;
    if (m_pending) deadline = m_pending->due;
    if (!mayTake()) return deadline;
    const Clock::time_point take = m_firstSince + m_options.delay;
    return deadline ? std::min(*deadline, take) : take;
}

void VirtualDevice::waitForEvents() {
    const short readerEvents =
        static_cast<short>((m_toHost.size() < HOST_LIMIT ? POLLIN : 0) | (m_toReader.empty() ? 0 : POLLOUT));
    std::array<pollfd, 3> fds{
        {{m_host.get(), POLLIN, 0}, {m_pty.get(), readerEvents, 0}, {m_orders.get(), POLLIN, 0}}};
    timespec timeout{};
    const std::optional<Clock::time_point> deadline = nextDeadline();
    if (deadline) {
        const std::chrono::duration<double> left = *deadline - Clock::now();
        const double seconds = std::max(0.0, left.count());
        timeout.tv_sec = static_cast<time_t>(seconds);
        timeout.tv_nsec = static_cast<long>((seconds - static_cast<double>(timeout.tv_sec)) * 1e9);
    }
    if (ppoll(fds.data(), fds.size(), deadline ? &timeout : nullptr, nullptr) < 0) fail("poll");
    serveReader(fds[1].revents);
    if (!fds[2].revents) return;
    const Descriptor client(accept(m_orders.get(), nullptr, nullptr));
    std::array<char, 256> order;
    const ssize_t count = read(client.get(), order.data(), order.size());
    if (count > 0) answer(client.get(), {order.data(), static_cast<std::size_t>(count)});
}

void VirtualDevice::answer(int client, const std::string& order) {
    std::string text;
    try {
        text = obey(order);
    } catch (const std::system_error& error) {
        text = REFUSAL + error.what() + "\n";
    }
    if (write(client, text.data(), text.size()) < 0) std::perror("driver_vacm");
}

void VirtualDevice::run() {
    for (;;) {
        // The host's messages come first: a transfer that it has cancelled must not be accepted.
        pollfd host{m_host.get(), POLLIN, 0};
        while (isPlugged() && poll(&host, 1, 0) > 0) takeMessage();
        takeFromHost();
        giveToHost();
        obeyPending();
        waitForEvents();
    }
}

int tell(const std::string& path, const std::string& order) {
    const Descriptor fd = required(socket(AF_UNIX, SOCK_STREAM, 0), "socket");
    const sockaddr_un address = addressOfOrders(path);
    if (connect(fd.get(), reinterpret_cast<const sockaddr*>(&address), sizeof address)) fail(path);
    if (write(fd.get(), order.data(), order.size()) < 0) fail(path);
    std::string answer;
    std::array<char, 256> chunk;
    for (ssize_t count; (count = read(fd.get(), chunk.data(), chunk.size())) > 0;) {
        answer.append(chunk.data(), static_cast<std::size_t>(count));
    }
    std::cout << answer;
    return answer.compare(0, REFUSAL.size(), REFUSAL) == 0;
}

int usage() {
    std::cerr << "usage: driver_vacm [-p PORT] [-d MS] [-m TEXT] [-s TEXT] play PATH\n"
                 "       driver_vacm tell PATH ORDER\n";
    return 2;
}

int run(int argc, char** argv) {
    Options options;
    for (int option; (option = getopt(argc, argv, "p:d:m:s:")) != -1;) {
        switch (option) {
            case 'p': options.port = std::stoi(optarg); break;
            case 'd': options.delay = milliseconds(std::stod(optarg)); break;
            case 'm': options.manufacturer = optarg; break;
            case 's': options.serialNumber = optarg; break;
            default: return usage();
        }
    }
    const std::vector<std::string> words(argv + optind, argv + argc);
    if (words.size() == 3 && words[0] == "tell") return tell(words[1], words[2]);
    if (words.size() != 2 || words[0] != "play") return usage();
    VirtualDevice(options, words[1]).run();
}

}  // namespace

int main(int argc, char** argv) {
    std::signal(SIGPIPE, SIG_IGN);  // the sender of an order may leave before the answer
    try {
        return run(argc, argv);
    } catch (const std::exception& error) {
        std::cerr << "driver_vacm: " << error.what() << '\n';
        return 1;
    }
}
