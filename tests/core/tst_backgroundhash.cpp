#include "BackgroundHash.h"
#include "PageRun.h"
#include "TestMain.h"

#include <QCryptographicHash>
#include <QRandomGenerator>

#include <sys/resource.h>

namespace {

constexpr int contentBytes = 12 * 1024 * 1024 + 345;

QByteArray sumOf(const QByteArray &bytes)
{
    return QCryptographicHash::hash(bytes, QCryptographicHash::Sha256);
}

} // namespace

class tst_BackgroundHash : public QObject
{
    Q_OBJECT

    const QByteArray m_content = testBytes(contentBytes);

private slots:
    void nothing()
    {
        const BackgroundHash hash;
        QCOMPARE(hash.bytes(), qint64(0));
        QCOMPARE(hash.sum(), sumOf(""));
    }

    void piecesOfAnySize()
    {
        QRandomGenerator generator(3);
        BackgroundHash hash;
        while (hash.bytes() < contentBytes) {
            const auto position = static_cast<int>(hash.bytes());
            const int most = generator.bounded(5) == 0 ? 3000000 : 300000;
            const int count = qMin(generator.bounded(most), contentBytes - position);
            QByteArray piece = m_content.mid(position, count);
            hash.add(piece.constData(), count);
            piece.fill('x'); // whoever adds may use the memory again
            if (generator.bounded(20) == 0)
                QCOMPARE(hash.sum(), sumOf(m_content.left(position + count)));
        }
        QCOMPARE(hash.bytes(), qint64(contentBytes));
        QCOMPARE(hash.sum(), sumOf(m_content));
    }

#ifndef CLIPWEIR_SANITIZED // which need memory themselves
    void withoutAThread()
    {
        rlimit before{};
        QCOMPARE(::getrlimit(RLIMIT_DATA, &before), 0);
        rlimit none = before;
        none.rlim_cur = 1; // there is no more memory, and so no stack for a thread
        BackgroundHash hash;
        hash.add("", 0);
        QCOMPARE(::setrlimit(RLIMIT_DATA, &none), 0);
        hash.add(m_content.constData(), contentBytes);
        QCOMPARE(::setrlimit(RLIMIT_DATA, &before), 0);
        QCOMPARE(hash.sum(), sumOf(m_content));
    }
#endif

    void beginningAgain()
    {
        BackgroundHash hash;
        hash.add(m_content.constData(), contentBytes);
        hash.reset();
        QCOMPARE(hash.bytes(), qint64(0));
        QCOMPARE(hash.sum(), sumOf(""));
        hash.add("abc", 3);
        QCOMPARE(hash.sum(), sumOf("abc"));
    }

    void endingWithWorkLeft()
    {
        BackgroundHash hash;
        hash.add(m_content.constData(), contentBytes);
        QCOMPARE(hash.bytes(), qint64(contentBytes));
    }
};

CLIPWEIR_TEST_MAIN(tst_BackgroundHash)
#include "tst_backgroundhash.moc"
