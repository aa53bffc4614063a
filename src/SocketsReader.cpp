#include "src/SocketsReader.h"

#include "src/SocketsEngine.h"

#include <QTcpSocket>

#include <cstring>

CSocketsReader::CSocketsReader(QTcpSocket& socket, MEngineNotifier& notifier)
    : QObject(nullptr)
    , iSocket(socket)
    , iNotifier(notifier)
    , iBuffer(new unsigned char[KReadBufferSize])
{
    std::memset(iBuffer, 0, KReadBufferSize);
}

CSocketsReader::~CSocketsReader()
{
    // The socket may already be gone; its connections to this object went
    // with it, and ~QObject drops any that are left.
    delete[] iBuffer;
}

void CSocketsReader::Start()
{
    iActive = true;
    connect(&iSocket, &QIODevice::readyRead, this, &CSocketsReader::OnDataReceive, Qt::UniqueConnection);
}

void CSocketsReader::Stop()
{
    iActive = false;
    disconnect(&iSocket, &QIODevice::readyRead, this, &CSocketsReader::OnDataReceive);
}

void CSocketsReader::ReaderGetWORD(unsigned short& out, unsigned char* p)
{
    out = static_cast<unsigned short>(p[0] * 256 + p[1]);
}

void CSocketsReader::OnDataReceive()
{
    if (!iSocket.isReadable())
        return;

    std::memset(iBuffer, 0, KReadBufferSize);
    const qint64 read = iSocket.read(reinterpret_cast<char*>(iBuffer), KReadBufferSize);
    const int length = static_cast<int>(read);

    // A look at what would be a packet header; nothing depends on it.
    if (length > KPeekMinLength) {
        for (int i = 0; i < KPeekWordCount; ++i)
            ReaderGetWORD(iPeekWords[i], iBuffer + KPeekOffsets[i]);
    }

    // Last statement: the engine's owner may delete the engine, and this
    // reader with it, from inside the report.
    iNotifier.ResponseReceived(iBuffer, length);
}
