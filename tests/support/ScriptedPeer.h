#ifndef VELANET_SCRIPTEDPEER_H
#define VELANET_SCRIPTEDPEER_H

// A TCP server on 127.0.0.1 that plays a fixed script on every connection it
// accepts, for tests that need exact bytes on the wire: heads split at chosen
// places, slow peers, early closes and resets.
//
//   velatest::ScriptedPeer peer;
//   peer.AddScript(velatest::PeerScript()
//                      .ExpectHead()
//                      .SendPieces({"HTTP/1.1 200 OK\r\nContent-Len", "gth: 2\r\n\r\nok"})
//                      .Close());
//   ASSERT_TRUE(peer.Listen());
//   ... point the client at peer.Url("/x"), spin until done ...
//   EXPECT_EQ(peer.Captured(0).value(0), QByteArray("GET /x HTTP/1.1\r\n..."));
//
// The first accepted connection runs the first script, the second the
// second, and the last script also serves every later connection. A peer
// without scripts accepts and stays silent.
//
// Write steps finish only when the kernel has delivered their bytes to the
// client's receive queue (the socket's unsent and unacknowledged count is 0,
// which on loopback means the client side holds them; a client that delays
// its acknowledgements makes this take some milliseconds longer). Between
// the pieces of SendPieces the peer then lets the event loop turn twice, so
// a client that reads on every readyRead sees each piece as a read of its own. A client
// that does not read on every readyRead needs an explicit WaitUntil between
// plain Send steps. Nothing in the peer sleeps; every wait is an event.
//
// Everything runs on the thread that owns the peer, normally the test's
// thread, whose event loop the test spins (velatest::SpinUntil).

#include <QByteArray>
#include <QList>
#include <QString>
#include <QTcpServer>

#include <functional>
#include <memory>
#include <vector>

namespace velatest {

// The steps of one connection, run in order.
class PeerScript
{
public:
    // Reading steps: each waits until the client has sent what it names,
    // then records exactly those bytes (see ScriptedPeer::Captured).
    PeerScript& Expect(int count);                     // the next count bytes
    PeerScript& ExpectUntil(const QByteArray& marker);  // up to and including marker
    PeerScript& ExpectHead();                           // ExpectUntil("\r\n\r\n")
    // A head and then as many body bytes as its Content-Length field says
    // (none without the field); chunked request bodies are not understood.
    PeerScript& ExpectRequest();
    // Waits until the client has closed its end (or reset it).
    PeerScript& ExpectClose();

    // Writing steps.
    PeerScript& Send(const QByteArray& bytes);
    // Each piece as a read of its own on the client (see above).
    PeerScript& SendPieces(const QList<QByteArray>& pieces);
    // bytes cut at the given ascending offsets: {3, 10} sends [0,3), [3,10), [10,end).
    PeerScript& SendSplit(const QByteArray& bytes, const QList<int>& cuts);
    // A slow peer: bytes in pieces of pieceSize, each a read of its own.
    PeerScript& SendSlowly(const QByteArray& bytes, int pieceSize);
    // Bytes made when the step runs from everything the client has sent so far.
    PeerScript& SendComputed(const std::function<QByteArray(const QByteArray& received)>& make);

    // Waiting steps.
    // Holds the script until condition() holds; checked on event-loop turns.
    PeerScript& WaitUntil(const std::function<bool()>& condition);
    // Holds the script for ms milliseconds of event-loop time (a slow server).
    PeerScript& Delay(int ms);

    // Endings; later steps never run.
    PeerScript& Close();       // orderly close (FIN) after everything written
    PeerScript& Abort();       // reset (RST) once everything written has been delivered
    PeerScript& StaySilent();  // keep the connection open, read and record, send nothing

    int StepCount() const { return static_cast<int>(m_steps.size()); }

    struct Step;

private:
    friend class ScriptedPeer;
    std::vector<std::shared_ptr<const Step>> m_steps;
};

class ScriptedPeer
{
public:
    ScriptedPeer();
    ~ScriptedPeer();
    ScriptedPeer(const ScriptedPeer&) = delete;
    ScriptedPeer& operator=(const ScriptedPeer&) = delete;

    // Script for the next connection not yet given one (see above).
    void AddScript(const PeerScript& script);

    // Listens on 127.0.0.1; port 0 lets the system choose (see Port()).
    bool Listen(quint16 port = 0);
    // Stops accepting; open connections go on with their scripts.
    void StopListening();
    quint16 Port() const;
    // "http://127.0.0.1:" + port + path
    QString Url(const QString& path = QString("/")) const;

    int ConnectionCount() const;
    // Spins the event loop until count connections have been accepted.
    bool WaitForConnections(int count, int deadlineMs = 5000) const;

    // Everything the client sent on connection index (0 = first accepted),
    // byte for byte, also bytes that no reading step took.
    QByteArray Received(int index) const;
    // What each reading step of that connection took, in step order.
    QList<QByteArray> Captured(int index) const;
    // The script of that connection has ended (all steps run, or an ending step).
    bool ScriptDone(int index) const;
    // The client closed or reset that connection.
    bool ClientClosed(int index) const;
    // Spins the event loop until the script of that connection has ended.
    bool WaitForScriptDone(int index, int deadlineMs = 5000) const;

private:
    class Connection;
    void OnNewConnection();

    QTcpServer m_server;
    std::vector<PeerScript> m_scripts;
    std::vector<std::unique_ptr<Connection>> m_connections;
};

}  // namespace velatest

#endif
