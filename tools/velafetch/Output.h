#ifndef VELAFETCH_OUTPUT_H
#define VELAFETCH_OUTPUT_H

// Where a body goes: standard output or a file, gathered in a buffer of
// KBufferBytes so that the 1024-byte pieces the library hands up cost one
// write call per KBufferBytes, not one each. The buffer is small enough to
// stay in the processor's cache between the copy into it and the write.
//
// Nothing received is held back where a user could miss it:
// - Flush writes the buffer out; the owner flushes before it shows a
//   transfer's end (the progress bar's last state, a failure line), and
//   FlushAll writes every open output before any other line on stderr.
// - Close (completion, and the destructor) flushes.
// - Discard (a failed transfer) writes out what standard output or a file
//   being appended to has received, and deletes a file it created.
// - SIGINT and SIGTERM flush every open output, then end the program by
//   the same signal as before (the files stay, so -C resumes from them).

#include <QByteArray>
#include <QString>

namespace velafetch {

class Output
{
public:
    static constexpr int KBufferBytes = 256 * 1024;

    // Standard output (stays open when closed).
    Output();
    // A file, opened by Open.
    explicit Output(const QString& path);
    ~Output();
    Output(const Output&) = delete;
    Output& operator=(const Output&) = delete;

    // Opens the file: append keeps what is there (a resumed download),
    // otherwise it is emptied. Standard output: nothing to do. False with
    // the reason in Error().
    [[nodiscard]] bool Open(bool append);
    // Buffered write; false once a write has failed.
    [[nodiscard]] bool Write(const unsigned char* data, int len);
    // Writes what is buffered; false on a write failure.
    [[nodiscard]] bool Flush();
    // Flushes and closes; false on a failure.
    [[nodiscard]] bool Close();
    // Ends a failed transfer: standard output and an appended file get
    // what was received, a file that Open created is deleted.
    void Discard();

    // Flushes every open output (write failures stay in their Error()).
    static void FlushAll();

    bool IsOpen() const { return m_fd >= 0; }
    bool IsStdout() const { return m_path.isEmpty(); }
    const QString& Path() const { return m_path; }
    const QString& Error() const { return m_error; }

private:
    [[nodiscard]] bool WriteAll(const char* data, qint64 len);
    void Register();
    void Unregister();

    QString m_path;  // empty: standard output
    int m_fd = -1;
    bool m_created = false;
    QByteArray m_buffer;
    int m_used = 0;
    QString m_error;
    Output* m_next = nullptr;  // the list of open outputs
};

}  // namespace velafetch

#endif
