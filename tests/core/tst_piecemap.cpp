#include "PieceMap.h"
#include "TestMain.h"

#include <QBitArray>
#include <QRandomGenerator>

namespace {

constexpr int length = 200;

} // namespace

class tst_PieceMap : public QObject
{
    Q_OBJECT

    static void compare(const PieceMap &map, qint64 most, qint64 first, qint64 end)
    {
        const PieceMap::Piece piece = map.firstFree(most);
        QCOMPARE(piece.first, first);
        QCOMPARE(piece.end, end);
    }

private slots:
    void inOrder()
    {
        PieceMap map(10);
        QCOMPARE(map.freeBytes(), qint64(10));
        compare(map, 4, 0, 4);
        map.claim({0, 4});
        compare(map, 4, 4, 8);
        map.claim({4, 8});
        compare(map, 4, 8, 10);
        map.claim({8, 10});
        compare(map, 4, 0, 0);
        QCOMPARE(map.freeBytes(), qint64(0));
    }

    void whatIsReleasedComesFirst()
    {
        PieceMap map(10);
        map.claim({0, 10});
        map.release({2, 4});
        map.release({6, 8});
        compare(map, 10, 2, 4);
        map.release({4, 6});
        compare(map, 10, 2, 8);
        map.release({3, 3});
        map.release({8, 5});
        QCOMPARE(map.freeBytes(), qint64(6));
    }

    void nothing()
    {
        PieceMap map(0);
        compare(map, 1, 0, 0);
        map.claim({5, 5});
        QCOMPARE(map.freeBytes(), qint64(0));
    }

    /// Against a table of all bytes.
    void anyOrder()
    {
        QRandomGenerator generator(5);
        PieceMap map(length);
        QBitArray free(length, true);
        for (int i = 0; i < 5000; ++i) {
            const int first = generator.bounded(length);
            const int end = generator.bounded(first, qMin(length, first + 30) + 1);
            const bool isRelease = generator.bounded(2) == 0;
            free.fill(isRelease, first, end);
            if (isRelease)
                map.release({first, end});
            else
                map.claim({first, end});
            QCOMPARE(map.freeBytes(), qint64(free.count(true)));
            int expected = 0;
            while (expected < length && !free.testBit(expected))
                ++expected;
            int expectedEnd = expected;
            while (expectedEnd < length && free.testBit(expectedEnd))
                ++expectedEnd;
            if (expected < length)
                compare(map, length, expected, expectedEnd);
            else
                compare(map, length, 0, 0);
        }
    }
};

CLIPWEIR_TEST_MAIN(tst_PieceMap)
#include "tst_piecemap.moc"
