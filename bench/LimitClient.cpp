// limit-client: the single-connection limit of bench/compare. A plain
// blocking POSIX socket sends the request velanet's engine sends for the
// same URL (the same head lines, byte for byte) and reads the answer 64 KiB
// at a time into one buffer, discarding it: no event loop, no pieces, no
// library. What a client on one connection could reach at most.
//
//   limit-client http://127.0.0.1:PORT/PATH [--expect BYTES]
//
// The answer must be "200" with a Content-Length; the run ends after that
// many body bytes. Prints "bytes N" and "seconds S" (from connect to the
// last byte). Exit status 0 when the body is complete (with BYTES bytes, if
// given), 1 on a failure, 3 on bad arguments.

#include <arpa/inet.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>
#include <time.h>

namespace {

enum
{
    KExitOk = 0,
    KExitFailed = 1,
    KExitUsage = 3,
};

constexpr size_t KReadSize = 64 * 1024;
// The whole head must arrive within the first reads.
constexpr size_t KMaxHead = 16 * 1024;

int Usage()
{
    std::fprintf(stderr, "usage: limit-client http://ADDRESS:PORT/PATH [--expect BYTES]\n");
    return KExitUsage;
}

double Now()
{
    timespec ts;
    clock_gettime(CLOCK_MONOTONIC, &ts);
    return static_cast<double>(ts.tv_sec) + static_cast<double>(ts.tv_nsec) / 1e9;
}

bool SendAll(int fd, const std::string& text)
{
    size_t sent = 0;
    while (sent < text.size()) {
        const ssize_t n = ::send(fd, text.data() + sent, text.size() - sent, MSG_NOSIGNAL);
        if (n < 0 && errno == EINTR)
            continue;
        if (n <= 0)
            return false;
        sent += static_cast<size_t>(n);
    }
    return true;
}

// Content-Length of a head (case-insensitive field name), or -1.
long long ContentLength(const std::string& head)
{
    static const char name[] = "\r\ncontent-length:";
    for (size_t i = 0; i + sizeof(name) - 1 <= head.size(); ++i) {
        if (strncasecmp(head.c_str() + i, name, sizeof(name) - 1) == 0)
            return std::strtoll(head.c_str() + i + sizeof(name) - 1, nullptr, 10);
    }
    return -1;
}

}  // namespace

int main(int argc, char** argv)
{
    std::string url;
    long long expected = -1;
    for (int i = 1; i < argc; ++i) {
        if (std::strcmp(argv[i], "--expect") == 0 && i + 1 < argc)
            expected = std::strtoll(argv[++i], nullptr, 10);
        else if (url.empty() && std::strncmp(argv[i], "http://", 7) == 0)
            url = argv[i];
        else
            return Usage();
    }
    if (url.empty())
        return Usage();
    // http://ADDRESS:PORT/PATH with a literal IPv4 address.
    const size_t hostStart = 7;
    const size_t slash = url.find('/', hostStart);
    const std::string authority = url.substr(hostStart, slash == std::string::npos ? std::string::npos : slash - hostStart);
    const std::string path = slash == std::string::npos ? "/" : url.substr(slash);
    const size_t colon = authority.find(':');
    const std::string address = authority.substr(0, colon);
    const int port = colon == std::string::npos ? 80 : std::atoi(authority.c_str() + colon + 1);
    sockaddr_in peer{};
    peer.sin_family = AF_INET;
    peer.sin_port = htons(static_cast<uint16_t>(port));
    if (port <= 0 || port > 65535 || inet_pton(AF_INET, address.c_str(), &peer.sin_addr) != 1)
        return Usage();

    // The head lines of velanet's GET for a download id.
    const std::string request = "GET " + path + " HTTP/1.1\r\n"
                                "Host: " + authority + "\r\n"
                                "User-Agent: NA/SymbianOS/8.0 Series60/2.6\r\n"
                                "V-UA: PLV2010_B2/10066&NA/NA&SYM2&533024&NA&V2\r\n"
                                "Accept: text/vnd.wap.wml,text/html, application/vnd.wap.xhtml+xml,"
                                "application/xhtml+xml,application/xml, image/jpeg;q=0.5,image/png;q=0.5,"
                                "image/gif;q=0.5,image/*;q=0.6, */*;q=0.6\r\n"
                                "Accept-Charset: utf-8,gb2312,iso-8859-1\r\n"
                                "Connection: close\r\n"
                                "\r\n";

    const double start = Now();
    const int fd = ::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
    if (fd < 0 || ::connect(fd, reinterpret_cast<sockaddr*>(&peer), sizeof(peer)) != 0) {
        std::fprintf(stderr, "limit-client: cannot connect: %s\n", std::strerror(errno));
        return KExitFailed;
    }
    if (!SendAll(fd, request)) {
        std::fprintf(stderr, "limit-client: cannot send: %s\n", std::strerror(errno));
        return KExitFailed;
    }

    static char buffer[KReadSize];
    std::string head;
    long long length = -1;
    long long body = 0;
    for (;;) {
        const ssize_t n = ::recv(fd, buffer, KReadSize, 0);
        if (n < 0 && errno == EINTR)
            continue;
        if (n <= 0)
            break;
        if (length < 0) {
            head.append(buffer, static_cast<size_t>(n));
            const size_t end = head.find("\r\n\r\n");
            if (end == std::string::npos) {
                if (head.size() > KMaxHead)
                    break;
                continue;
            }
            if (head.compare(0, 12, "HTTP/1.1 200") != 0 || (length = ContentLength(head.substr(0, end + 2))) < 0) {
                std::fprintf(stderr, "limit-client: not a 200 with a length: %.40s\n", head.c_str());
                return KExitFailed;
            }
            body = static_cast<long long>(head.size() - (end + 4));
            head.clear();
        } else {
            body += n;
        }
        if (body >= length)
            break;
    }
    const double seconds = Now() - start;
    ::close(fd);
    std::printf("bytes %lld\nseconds %.6f\n", body, seconds);
    if (length < 0 || body != length) {
        std::fprintf(stderr, "limit-client: %lld of %lld body bytes\n", body, length);
        return KExitFailed;
    }
    if (expected >= 0 && body != expected) {
        std::fprintf(stderr, "limit-client: %lld bytes, expected %lld\n", body, expected);
        return KExitFailed;
    }
    return KExitOk;
}
