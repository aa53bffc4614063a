#ifndef VELANET_SOCKETSWRITER_H
#define VELANET_SOCKETSWRITER_H

// CSocketsWriter keeps the long connection's outgoing byte arrays in a queue
// and writes them to the socket one at a time, in the order they were
// given, without framing.
//
// Writing runs synchronously: each complete write moves straight on to the
// next queued array, so on a writable socket IssueWriteL has written its
// data before it returns. A short write sends the unwritten tail once more
// and then waits for the next IssueWriteL before touching the queue again.
// A failed write (-1) leaves the writer busy: later arrays are only queued
// until Stop. Nothing is reported upward.
//
// Write status (WriteStatus()):
//   KWriteBusy (0)   a write is under way; SendNextPacket waits
//   KWriteIdle (1)   idle: as constructed and after Stop
//   KWriteRefuse (2) and above: IssueWriteL takes nothing (nothing sets it)

#include "BaseClass/src/CQList.h"

#include <QByteArray>
#include <QObject>

class MEngineNotifier;
class QAbstractSocket;

class CSocketsWriter : public QObject
{
    Q_OBJECT

public:
    enum
    {
        KWriteBusy = 0,
        KWriteIdle = 1,
        KWriteRefuse = 2,
    };

    // Neither the socket nor the notifier is owned.
    CSocketsWriter(QAbstractSocket& socket, MEngineNotifier& notifier);
    ~CSocketsWriter() override;

    CSocketsWriter(const CSocketsWriter&) = delete;
    CSocketsWriter& operator=(const CSocketsWriter&) = delete;

    // Queues data (sharing its bytes) and writes what can be written.
    // Empty data is ignored.
    void IssueWriteL(const QByteArray& data);
    // Writes the head of the queue unless a write is under way.
    void SendNextPacket();
    // Drops the queue and makes the writer idle.
    void Stop();
    // Deletes every queued array.
    void ClearTransmitList();

    // How many arrays wait in the queue (not counting one being written).
    int QueuedCount() const { return iTransmitList.GetCount(); }
    // The write status: KWriteBusy, KWriteIdle or KWriteRefuse and above.
    int WriteStatus() const { return iWriteStatus; }

public slots:
    // The end of a write of written bytes (called by SendNextPacket).
    void OnDataSend(qint64 written);

private:
    // Results of FinishWrite.
    enum
    {
        KWaitForMore = 0,  // nothing more to write until the next IssueWriteL
        KNextPacket = 1,   // the whole array went out: write the next one
    };

    // OnDataSend's bookkeeping without moving on to the next array.
    [[nodiscard]] int FinishWrite(qint64 written);

    QAbstractSocket& iSocket;
    // Given for symmetry with the reader; the writer reports nothing.
    [[maybe_unused]] MEngineNotifier& iNotifier;
    QByteArray iTransmitBuffer;
    qint32 iWriteStatus = KWriteIdle;
    CQList<QByteArray*, QByteArray*> iTransmitList;
};

#endif
