#ifndef VELANET_TESTSUPPORT_H
#define VELANET_TESTSUPPORT_H

#include <QByteArray>
#include <QString>
#include <cstddef>
#include <functional>
#include <random>
#include <string>
#include <vector>

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

// The seed of every random split in the suites: VELANET_SPLIT_SEED when set
// (to replay a failure), else a fresh one. Printed on first use, with the
// line to replay it.
unsigned SplitSeed();
// A random split of a message of len bytes: sorted, distinct cut offsets in
// 1..len-1, at least one and at most maxCuts (none when len < 2).
std::vector<std::size_t> RandomCuts(std::mt19937& random, std::size_t len, std::size_t maxCuts);
// Readable cut offsets for a failure message ("cuts: 3 17").
std::string CutsText(const std::vector<std::size_t>& cuts);

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
