// velafetch: the command-line client of velanet. See velafetch --help.

#include "Demo.h"
#include "FetchMode.h"
#include "Options.h"
#include "PickApMode.h"
#include "TcpMode.h"
#include "UploadMode.h"

#include <QApplication>
#include <QCoreApplication>
#include <QStringList>

#include <csignal>
#include <cstdio>
#include <memory>

namespace {

void PrintHelp()
{
    const QByteArray text = velafetch::HelpText().toLocal8Bit();
    std::fwrite(text.constData(), 1, static_cast<size_t>(text.size()), stdout);
}

}  // namespace

int main(int argc, char** argv)
{
    // A closed standard output ends the program by its write error, not by
    // the signal.
    std::signal(SIGPIPE, SIG_IGN);

    QStringList args;
    for (int i = 1; i < argc; ++i)
        args << QString::fromLocal8Bit(argv[i]);
    const velafetch::ParseResult parsed = velafetch::ParseOptions(args);
    if (!parsed.error.isEmpty()) {
        velafetch::PrintError(parsed.error);
        std::fputs("Try 'velafetch --help'.\n", stderr);
        return velafetch::KExitUsage;
    }
    const velafetch::Options& options = parsed.options;

    // Only the picker needs a display.
    std::unique_ptr<QCoreApplication> app;
    if (options.mode == velafetch::Mode::PickAp)
        app = std::make_unique<QApplication>(argc, argv);
    else
        app = std::make_unique<QCoreApplication>(argc, argv);

    switch (options.mode) {
    case velafetch::Mode::Help:
        PrintHelp();
        return velafetch::KExitOk;
    case velafetch::Mode::Fetch:
        return velafetch::RunFetch(options);
    case velafetch::Mode::Tcp:
        return velafetch::RunTcp(options);
    case velafetch::Mode::UploadResumable:
        return velafetch::RunUploadResumable(options);
    case velafetch::Mode::PickAp:
        return velafetch::RunPickAp(options);
    case velafetch::Mode::Demo:
        return velafetch::RunDemo(options);
    }
    return velafetch::KExitUsage;
}
