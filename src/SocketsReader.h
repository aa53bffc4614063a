#ifndef VELANET_SOCKETSREADER_H
#define VELANET_SOCKETSREADER_H

// CSocketsReader takes received bytes off the long connection's socket and
// hands them to the sockets engine as they come: one read of at most 1024
// bytes per readyRead(), passed up whole, with no framing. Bytes beyond
// those 1024 stay in the socket until the socket signals new data.

#include <QObject>

class MEngineNotifier;
class QTcpSocket;

class CSocketsReader : public QObject
{
    Q_OBJECT

public:
    // Size of the one receive buffer and the most one read takes.
    static constexpr int KReadBufferSize = 1024;

    // Neither the socket nor the notifier is owned. The reader starts
    // stopped.
    CSocketsReader(QTcpSocket& socket, MEngineNotifier& notifier);
    ~CSocketsReader() override;

    CSocketsReader(const CSocketsReader&) = delete;
    CSocketsReader& operator=(const CSocketsReader&) = delete;

    // Listens to the socket's readyRead(); calling it again changes nothing.
    void Start();
    // Stops listening.
    void Stop();
    bool IsActive() const { return iActive; }
    // Word index (0 to 2) of the last chunk of more than 8 bytes, read at
    // offsets 1, 5 and 7; 0 until such a chunk came, and for any other
    // index. Nothing depends on it.
    unsigned short LastPeekWord(int index) const
    {
        return index >= 0 && index < KPeekWordCount ? iPeekWords[index] : 0;
    }

    // out = p[0] * 256 + p[1] (network byte order). p must hold two bytes.
    void ReaderGetWORD(unsigned short& out, unsigned char* p);

public slots:
    // One read of at most KReadBufferSize bytes into the zeroed buffer, then
    // ResponseReceived with what the read returned, also 0 or -1 (a read
    // error). Nothing when the socket is not readable.
    void OnDataReceive();

private:
    // Offsets of the three 16-bit words peeked at in a chunk of more than
    // KPeekMinLength bytes; the words steer nothing.
    static constexpr int KPeekMinLength = 8;
    static constexpr int KPeekWordCount = 3;
    static constexpr int KPeekOffsets[KPeekWordCount] = {1, 5, 7};

    QTcpSocket& iSocket;
    MEngineNotifier& iNotifier;
    unsigned char* iBuffer;
    bool iActive = false;
    // The words of the last peek, kept for inspection only (LastPeekWord).
    unsigned short iPeekWords[KPeekWordCount] = {0, 0, 0};
};

#endif
