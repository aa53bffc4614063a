#ifndef VELANET_TESTSUPPORT_H
#define VELANET_TESTSUPPORT_H

#include <QByteArray>
#include <QString>
#include <functional>
#include <string>

namespace velatest {

// Runs the Qt event loop until cond() holds or deadlineMs passes.
// Returns whether cond() held.
bool SpinUntil(const std::function<bool()>& cond, int deadlineMs = 5000);

// Runs the event loop for pending events only (no waiting).
void ProcessPendingEvents();

// Bytes with CR and LF made visible, for readable failure messages.
std::string Visible(const QByteArray& bytes);
std::string Visible(const unsigned char* data, int len);

// A gzip member of in (zlib, level 9), for bodies marked gzip.
QByteArray Gzip(const QByteArray& in);
// size bytes of words chosen by a linear congruential generator started at
// seed: text that compresses well and differs between seeds.
QByteArray CompressibleText(int size, unsigned int seed);
// size bytes 'a' + (i * 7) % 26: a body whose every offset is checkable.
QByteArray LetterPattern(int size);

// A fresh empty directory under the system temporary directory, removed
// with its contents when the object goes away.
class TempDir
{
public:
    TempDir();
    ~TempDir();
    TempDir(const TempDir&) = delete;
    TempDir& operator=(const TempDir&) = delete;
    const QString& Path() const { return m_path; }
    QString File(const QString& name) const { return m_path + "/" + name; }

private:
    QString m_path;
};

}  // namespace velatest

#endif
