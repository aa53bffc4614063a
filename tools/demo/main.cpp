// Shows what velanet puts on the wire for one URL: the host, port and path it
// reads from it, and the exact GET and POST request bytes it builds, with
// CR and LF made visible.
//
//   velanet-demo [URL]      default: http://srv.test:8080/news?id=7

#include "src/HttpData.h"

#include <QCoreApplication>

#include <cstdio>
#include <memory>
#include <string>

namespace {

std::string Visible(const unsigned char* data, int len)
{
    std::string out;
    for (int i = 0; i < len; ++i) {
        const unsigned char c = data[i];
        if (c == '\r') {
            out += "\\r";
        } else if (c == '\n') {
            out += "\\n\n";
        } else if (c < 0x20 || c >= 0x7f) {
            char hex[8];
            std::snprintf(hex, sizeof hex, "\\x%02x", c);
            out += hex;
        } else {
            out += static_cast<char>(c);
        }
    }
    return out;
}

std::string Piece(const char* data, int len)
{
    return data ? std::string(data, static_cast<size_t>(len)) : std::string("(none)");
}

void PrintRequest(const char* title, unsigned char* bytes, int len)
{
    const std::unique_ptr<unsigned char[]> owned(bytes);
    if (!bytes) {
        std::printf("%s: no request (the URL has no host)\n\n", title);
        return;
    }
    std::printf("%s (%d bytes):\n%s\n", title, len, Visible(bytes, len).c_str());
}

}  // namespace

int main(int argc, char** argv)
{
    QCoreApplication app(argc, argv);
    const char* url = argc > 1 ? argv[1] : "http://srv.test:8080/news?id=7";

    CHttpData request;
    request.SetURL(url);

    int hostLen = 0;
    const char* host = request.FindHost(hostLen);
    int pathLen = 0;
    const char* path = request.FindPath(pathLen);
    std::printf("URL:  %s\n", request.GetURL().GetDataPtr());
    std::printf("host: %s\n", Piece(host, hostLen).c_str());
    std::printf("port: %d\n", request.FindPort());
    std::printf("path: %s\n\n", Piece(path, pathLen).c_str());

    int len = 0;
    unsigned char* get = request.GetMethodData(CHttpData::KMethodGet, len, CHttpData::KEncodingGzip, 0);
    PrintRequest("GET, gzip accepted", get, len);

    static const char body[] = "a=1&b=hello";
    const int bodyLen = static_cast<int>(sizeof body - 1);
    unsigned char* post = request.GetMethodData(CHttpData::KMethodPost, len, 0, 0, 0, bodyLen,
                                                reinterpret_cast<unsigned char*>(const_cast<char*>(body)));
    PrintRequest("POST of a form", post, len);
    return 0;
}
