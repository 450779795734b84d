#ifndef HDSRUN_H
#define HDSRUN_H

#include "AdobeDownloader.h"
#include "AdobePreference.h"
#include "HdsFixtures.h"
#include "MessageCatcher.h"

#include <QElapsedTimer>
#include <QFile>
#include <QSignalSpy>
#include <QTemporaryDir>
#include <QtTest>

#include <memory>

/// One download in this process, set up as the page driver does it, into a folder of its own.
class HdsRun final
{
public:
    HdsRun()
    {
        CAdobePreference::GetInstance()->Reset();
        qputenv("CLIPWEIR_COOKIES", m_folder.filePath(QStringLiteral("cookies.txt")).toUtf8());
        makeDownloader();
    }

    /// Starts the download. What Download() returns is kept in `started`.
    void start(const QString &manifest, const QStringList &more = {})
    {
        QStringList arguments{QStringLiteral("--url"),      QStringLiteral("http://page/"),
                              QStringLiteral("--manifest"), manifest,
                              QStringLiteral("--outFile"),  QStringLiteral("out.flv"),
                              QStringLiteral("--outDir"),   m_folder.path()};
        CAdobePreference::GetInstance()->parseParams(arguments + more);
        started = downloader->Download();
    }

    /// Waits for the end and returns its code; -99 when there is none.
    int wait(int timeoutMs = 60000)
    {
        // An event loop, not QTest::qWaitFor(): that sleeps in between, and servers of the test
        // live on this thread.
        const bool hasEnded = !ends->isEmpty() || ends->wait(timeoutMs);
        return hasEnded ? ends->constFirst().constFirst().toInt() : -99;
    }

    int run(const QString &manifest, const QStringList &more = {})
    {
        start(manifest, more);
        return wait();
    }

    /// A new downloader over the same folder and the same options.
    void makeDownloader()
    {
        ends.reset();
        downloader = std::make_unique<CAdobeDownloader>();
        ends = std::make_unique<QSignalSpy>(downloader.get(), &CAdobeDownloader::finished);
    }

    [[nodiscard]] QString path(const QString &name) const { return m_folder.filePath(name); }

    [[nodiscard]] QByteArray output() const
    {
        QFile file(path(QStringLiteral("out.flv")));
        return file.open(QIODevice::ReadOnly) ? file.readAll() : QByteArray();
    }

    /// The media tags' data after the codec bytes of hds::audioTag() and hds::videoTag(), at most
    /// 8 characters each.
    [[nodiscard]] QByteArrayList contents() const
    {
        QString error;
        QByteArrayList texts;
        const auto tags = hds::readFlv(output(), error);
        if (!error.isEmpty())
            return {error.toUtf8()};
        for (const auto &tag : tags) {
            if (tag.type == 8)
                texts += tag.data.mid(2, 8);
            else if (tag.type == 9)
                texts += tag.data.mid(5, 8);
        }
        return texts;
    }

    [[nodiscard]] QStringList cacheFiles() const
    {
        return QDir(path(QStringLiteral("f4ftmp"))).entryList(QDir::Files, QDir::Name);
    }

    bool started = false;
    std::unique_ptr<CAdobeDownloader> downloader;
    std::unique_ptr<QSignalSpy> ends;

private:
    QTemporaryDir m_folder;
};

/// What HdsRun::contents() gives for a file of hds::numberedFragment()s.
inline QByteArrayList contentsOf(const QList<int> &numbers)
{
    QByteArrayList texts;
    for (const int number : numbers)
        texts << "a" + QByteArray::number(number) << "v" + QByteArray::number(number);
    return texts;
}

inline QList<int> numbersFrom(int first, int last)
{
    QList<int> numbers;
    for (int n = first; n <= last; ++n)
        numbers += n;
    return numbers;
}

#endif
