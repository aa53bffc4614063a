#ifndef VELAFETCH_OUTPUT_H
#define VELAFETCH_OUTPUT_H

// Where a body goes: standard output or a file, written through a large
// buffer so that the 1024-byte pieces the library hands up cost one system
// call per KBufferBytes, not one each.

#include <QByteArray>
#include <QString>

namespace velafetch {

class Output
{
public:
    static constexpr int KBufferBytes = 1 << 20;

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
    // Closes without flushing and deletes the file if Open created it.
    void Discard();

    bool IsOpen() const { return m_fd >= 0; }
    bool IsStdout() const { return m_path.isEmpty(); }
    const QString& Path() const { return m_path; }
    const QString& Error() const { return m_error; }

private:
    [[nodiscard]] bool WriteAll(const char* data, qint64 len);

    QString m_path;  // empty: standard output
    int m_fd = -1;
    bool m_created = false;
    QByteArray m_buffer;
    int m_used = 0;
    QString m_error;
};

}  // namespace velafetch

#endif
