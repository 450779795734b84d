#include "ProcessMemory.h"
#include "TestMain.h"

#include <cstdlib>
#include <cstring>
#include <memory>

#include <sys/resource.h>
#include <sys/wait.h>
#include <unistd.h>

namespace {

constexpr qint64 pieceBytes = 64 * ProcessMemory::bytesPerMiB;

/// Whether a child process that may grow by so much, the last of these counts, gets a piece of
/// memory.
bool isPieceGivenAt(std::initializer_list<qint64> growths)
{
    const pid_t child = ::fork();
    if (child == 0) {
        for (const qint64 bytes : growths)
            ProcessMemory::limitGrowth(bytes);
        void *volatile const piece = std::malloc(pieceBytes); // goes with the process
        ::_exit(piece ? 0 : 1);
    }
    int status = -1;
    ::waitpid(child, &status, 0);
    return WIFEXITED(status) && WEXITSTATUS(status) == 0;
}

} // namespace

class tst_ProcessMemory : public QObject
{
    Q_OBJECT

private slots:
    void memoryThatIsUsedCounts()
    {
        const qint64 before = ProcessMemory::residentBytes();
        QVERIFY(before > ProcessMemory::bytesPerMiB);
        const auto piece = std::make_unique<char[]>(pieceBytes);
        std::memset(piece.get(), 1, pieceBytes);
        QVERIFY(ProcessMemory::residentBytes() > before + pieceBytes / 2);
    }

    void theLimitCountsFromWhatThereIs()
    {
        QVERIFY(isPieceGivenAt({2 * pieceBytes}));
        QVERIFY(isPieceGivenAt({pieceBytes / 2, 2 * pieceBytes}));
#ifndef CLIPWEIR_SANITIZED // which is left without a limit
        QVERIFY(!isPieceGivenAt({pieceBytes / 2}));
        QVERIFY(!isPieceGivenAt({2 * pieceBytes, pieceBytes / 2}));
#endif
    }

    void aTighterLimitStays()
    {
        const pid_t child = ::fork();
        if (child == 0) {
            rlimit tight{ProcessMemory::bytesPerMiB, RLIM_INFINITY};
            ::setrlimit(RLIMIT_DATA, &tight);
            ProcessMemory::limitGrowth(pieceBytes);
            rlimit now{};
            ::getrlimit(RLIMIT_DATA, &now);
            ::_exit(now.rlim_cur == tight.rlim_cur ? 0 : 1);
        }
        int status = -1;
        ::waitpid(child, &status, 0);
        QVERIFY(WIFEXITED(status));
        QCOMPARE(WEXITSTATUS(status), 0);
    }
};

CLIPWEIR_TEST_MAIN(tst_ProcessMemory)
#include "tst_processmemory.moc"
