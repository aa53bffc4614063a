#include "src/internal/DnsGatewayReply_p.h"

#include <QHostAddress>
#include <QString>

namespace velanet {

std::vector<quint32> ScanGatewayReply(const unsigned char* data, int len)
{
    std::vector<quint32> addresses;
    if (!data || len < 1)
        return addresses;
    // Never cleared within a piece: see the file comment of the header.
    QString accumulated;
    int pos = 0;
    while (pos < len) {
        int end = pos;
        while (end < len && data[end] != KGatewayItemEnd)
            ++end;
        if (end == len)
            break;  // text after the last ";" is ignored
        const int itemLen = end - pos;
        if (itemLen >= KGatewayItemMinLen && itemLen <= KGatewayItemMaxLen) {
            accumulated.append(QString::fromLatin1(reinterpret_cast<const char*>(data + pos), itemLen));
            QHostAddress address;
            if (address.setAddress(accumulated))
                addresses.push_back(address.toIPv4Address());
        }
        pos = end + 1;
    }
    return addresses;
}

}  // namespace velanet
