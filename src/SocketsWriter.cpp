#include "src/SocketsWriter.h"

#include "src/internal/SocketsWriterStatus_p.h"

#include <QAbstractSocket>

CSocketsWriter::CSocketsWriter(QAbstractSocket& socket, MEngineNotifier& notifier)
    : QObject(nullptr)
    , iSocket(socket)
    , iNotifier(notifier)
    , iTransmitList(1)
{
}

CSocketsWriter::~CSocketsWriter()
{
    ClearTransmitList();
}

void CSocketsWriter::IssueWriteL(const QByteArray& data)
{
    if (!velanet::WriterTakesData(iWriteStatus) || data.isEmpty())
        return;
    QByteArray* queued = new QByteArray(data);
    if (iTransmitList.AddTail(queued) == nullptr) {
        delete queued;
        return;
    }
    SendNextPacket();
}

void CSocketsWriter::SendNextPacket()
{
    // One array per turn; a complete write goes on with the next one. A loop
    // rather than OnDataSend calling back here, so a long queue cannot
    // exhaust the stack.
    for (;;) {
        if (iWriteStatus == KWriteBusy || iTransmitList.IsEmpty())
            return;
        if (!iSocket.isWritable()) {
            iWriteStatus = KWriteIdle;
            return;
        }

        QByteArray* head = iTransmitList.RemoveHead();
        iTransmitBuffer = *head;
        delete head;

        iWriteStatus = KWriteBusy;
        const qint64 written = iSocket.write(iTransmitBuffer);
        // A failed write keeps the status busy: the queue waits for Stop.
        if (written == -1)
            return;
        if (FinishWrite(written) != KNextPacket)
            return;
    }
}

void CSocketsWriter::OnDataSend(qint64 written)
{
    if (FinishWrite(written) == KNextPacket)
        SendNextPacket();
}

int CSocketsWriter::FinishWrite(qint64 written)
{
    if (iWriteStatus != KWriteBusy)
        return KWaitForMore;
    iWriteStatus = KWriteIdle;

    const qint64 length = iTransmitBuffer.size();
    if (written == length)
        return KNextPacket;

    // The tail goes out once more, whatever that write returns; the next
    // queued array waits for the next IssueWriteL.
    const qint64 rest = length - written;
    iTransmitBuffer = iTransmitBuffer.right(static_cast<int>(rest));
    iSocket.write(iTransmitBuffer);
    return KWaitForMore;
}

void CSocketsWriter::Stop()
{
    ClearTransmitList();
    iWriteStatus = KWriteIdle;
}

void CSocketsWriter::ClearTransmitList()
{
    for (auto pos = iTransmitList.GetHeadPosition(); pos != nullptr;)
        delete iTransmitList.GetNext(pos);
    iTransmitList.RemoveAll();
}
