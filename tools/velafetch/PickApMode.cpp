#include "PickApMode.h"

#include "FetchMode.h"

#include "BaseClass/src/CQPath.h"
#include "BaseClass/src/CQString.h"
#include "src/ApnDialog.h"
#include "src/IAPConnectEngine.h"

#include <QFile>
#include <QVector>

#include <cstdio>
#include <memory>

namespace velafetch {

namespace {

class Choice : public SelectIAPObserver
{
public:
    void onSelectedIAPName(QString& name) override { m_name = name; }
    const QString& Name() const { return m_name; }

private:
    QString m_name;
};

}  // namespace

int RunPickAp(const Options& options)
{
    if (!options.iapFile.isEmpty()) {
        const QByteArray path = QFile::encodeName(options.iapFile);
        CQPath::SetIAPFilePath(CQSString(path.constData(), path.size()));
    }
    std::unique_ptr<CIAPConnectEngine> iap(CIAPConnectEngine::NewL(options.apNames.first()));
    if (!iap) {
        PrintError("the access point engine could not be created");
        return KExitFailed;
    }

    Choice choice;
    QVector<QString> names;
    for (const QString& name : options.apNames)
        names << name;
    CApnDialog dialog(names, &choice);
    dialog.setWindowTitle("Access point");
    // The saved access point starts selected when it is one of the names.
    dialog.SetSelectIap(iap->ReadIap());
    (void)dialog.exec();

    if (choice.Name().isEmpty()) {
        PrintError("no access point chosen");
        return KExitFailed;
    }
    iap->SaveIap(choice.Name());
    const QByteArray line = choice.Name().toLocal8Bit() + '\n';
    std::fwrite(line.constData(), 1, static_cast<size_t>(line.size()), stdout);
    std::fflush(stdout);
    return KExitOk;
}

}  // namespace velafetch
