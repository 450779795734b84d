#include "KeyFile.h"
#include "StopBlock.h"
#include "TestMain.h"

#include <QTemporaryDir>

#include <cstring>
#include <memory>
#include <vector>

#include <sched.h>
#include <sys/ipc.h>
#include <sys/sem.h>
#include <sys/shm.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

namespace {

bool isNumberWeak = true;
constexpr int usualBits = 12;
int weakBits = usualBits;

/// The system's own way, for files of which there may be 65536.
key_t fullNumber(const struct stat &info, int projectId)
{
    return static_cast<key_t>((static_cast<unsigned>(projectId) << 24)
                              | ((info.st_dev & 0xffU) << 16) | (info.st_ino & 0xffffU));
}

/// One of a few numbers, in no order.
key_t weakNumber(const struct stat &info)
{
    quint64 mixed = info.st_ino; // numbers in a row must not come out evenly spread
    for (int round = 0; round < 2; ++round) {
        mixed = (mixed ^ (mixed >> 31)) * Q_UINT64_C(0xBF58476D1CE4E5B9);
        mixed ^= mixed >> 27;
    }
    return static_cast<key_t>(0x62000000U | (mixed >> (64 - weakBits)));
}

} // namespace

/// Stands in for the system's, for the toolkit as well: files of different names have the same
/// number every few hundred files at the latest.
extern "C" __attribute__((visibility("default"))) key_t ftok(const char *path, int projectId)
{
    struct stat info = {};
    if (::stat(path, &info) != 0)
        return -1;
    return isNumberWeak ? weakNumber(info) : fullNumber(info, projectId);
}

namespace {

QString keyOf(int i)
{
    return QStringLiteral("SM_%1").arg(i, 32, 16, QLatin1Char('0')).toUpper();
}

QString lockPathOf(const QString &key)
{
    return KeyFile(key, KeyFile::Kind::Lock).path();
}

key_t numberOf(const QString &path)
{
    return ftok(QFile::encodeName(path).constData(), 'Q');
}

int readNumber(QSharedMemory &memory)
{
    int number = -1;
    if (memory.lock()) {
        std::memcpy(&number, memory.constData(), sizeof number);
        memory.unlock();
    }
    return number;
}

void writeNumber(QSharedMemory &memory, int number)
{
    if (memory.lock()) {
        std::memcpy(memory.data(), &number, sizeof number);
        memory.unlock();
    }
}

/// What a host that knows the key reads; -1 when it finds nothing.
int readByHost(const QString &key)
{
    QSharedMemory memory(key);
    return memory.attach() ? readNumber(memory) : -1;
}

/// What a process does that makes a block as soon as the start's pipe closes, says so, and keeps it
/// until the end's does.
bool holdBlock(int i, int start, int made, int end)
{
    char byte = 0;
    const bool hasStarted = ::read(start, &byte, 1) == 0;
    StopBlock block(keyOf(i));
    byte = hasStarted && block.create(sizeof(int)) ? 1 : 0;
    if (byte == 1)
        writeNumber(block.memory(), i);
    const bool isSaid = ::write(made, &byte, 1) == 1;
    char rest = 0;
    const bool isOver = ::read(end, &rest, 1) == 0;
    return isSaid && isOver && byte == 1 && block.remove();
}

bool writeFile(const QString &path, const QByteArray &content)
{
    QFile file(path);
    return file.open(QIODevice::WriteOnly) && file.write(content) == content.size();
}

} // namespace

class tst_StopBlock : public QObject
{
    Q_OBJECT

private:
    std::unique_ptr<QTemporaryDir> m_folder;

    QStringList files() const { return QDir(m_folder->path()).entryList(QDir::Files); }

    /// Makes empty files until one has the number and leaves it under the name.
    bool makeFileWithNumber(const QString &path, key_t number)
    {
        const QDir dir(m_folder->path());
        bool isMade = false;
        for (int i = 0; i < 200000 && !isMade; ++i) {
            const QString other = dir.filePath(QStringLiteral("filler%1").arg(i));
            if (!writeFile(other, {}))
                return false;
            isMade = numberOf(other) == number && QFile::rename(other, path);
        }
        const QStringList fillers = dir.entryList({QStringLiteral("filler*")});
        for (const QString &filler : fillers)
            QFile::remove(dir.filePath(filler));
        return isMade;
    }

private slots:
    void initTestCase()
    {
        // Blocks outlive a test that crashes, and the system has room for a few thousand. Where it
        // is allowed this one has room of its own, which goes with it.
        (void)::unshare(CLONE_NEWIPC);
    }

    void init()
    {
        isNumberWeak = true;
        weakBits = usualBits;
        // In memory, if there is such a folder: the search looks at every file, and these are many.
        m_folder = std::make_unique<QTemporaryDir>(QStringLiteral("/dev/shm/tst_stopblock-XXXXXX"));
        if (!m_folder->isValid())
            m_folder = std::make_unique<QTemporaryDir>();
        qputenv("TMPDIR", QFile::encodeName(m_folder->path()));
        QCOMPARE(QDir::tempPath(), m_folder->path());
    }

    void cleanup() { qunsetenv("TMPDIR"); }

    void numberIsTheToolkitsOwn()
    {
        isNumberWeak = false;
        StopBlock block(keyOf(1));
        QVERIFY(block.create(1));
        const KeyFile file(keyOf(1), KeyFile::Kind::Block);
        QCOMPARE(file.path(), block.memory().nativeKey());
        // By this name the system lists a block that is attached.
        const QByteArray name =
            "/SYSV" + QByteArray::number(numberOf(file.path()), 16).rightJustified(8, '0');
        QFile maps(QStringLiteral("/proc/self/maps"));
        QVERIFY(maps.open(QIODevice::ReadOnly));
        QVERIFY(maps.readAll().contains(name));
        const int lock = ::semget(numberOf(lockPathOf(keyOf(1))), 1, 0);
        QVERIFY(lock >= 0);
        QVERIFY(block.remove());
        QCOMPARE(::semctl(lock, 0, GETVAL), -1);
        QCOMPARE(files(), QStringList());
    }

    void theToolkitAloneMixesBlocksUp()
    {
        // This many cannot all have numbers of their own by chance.
        constexpr int count = 500;
        int refused = 0;
        std::vector<std::unique_ptr<QSharedMemory>> blocks;
        for (int i = 0; i < count; ++i) {
            blocks.push_back(std::make_unique<QSharedMemory>(keyOf(i)));
            refused += blocks.back()->create(4) ? 0 : 1;
        }
        QVERIFY(refused > 0);
    }

    void noTwoOfManyBlocksAreTheSame()
    {
        constexpr int count = 2000;
        std::vector<std::unique_ptr<StopBlock>> blocks;
        for (int i = 0; i < count; ++i) {
            blocks.push_back(std::make_unique<StopBlock>(keyOf(i)));
            QVERIFY2(blocks.back()->create(sizeof(int)), qPrintable(QString::number(i)));
            writeNumber(blocks.back()->memory(), i);
        }
        QSet<key_t> locks;
        for (int i = 0; i < count; ++i) {
            QCOMPARE(readNumber(blocks.at(static_cast<size_t>(i))->memory()), i);
            QCOMPARE(readByHost(keyOf(i)), i);
            locks.insert(numberOf(lockPathOf(keyOf(i))));
        }
        QCOMPARE(locks.size(), count);
        for (const auto &block : blocks)
            QVERIFY(block->remove());
        QCOMPARE(files(), QStringList());
    }

    void processesThatSetOffAtOnceGetBlocksOfTheirOwn()
    {
        constexpr int count = 30;
        weakBits = 6; // 64 numbers
        int start[2];
        int end[2];
        int made[2];
        QVERIFY(::pipe(start) == 0 && ::pipe(end) == 0 && ::pipe(made) == 0);
        std::vector<pid_t> children;
        for (int i = 0; i < count; ++i) {
            const pid_t child = ::fork();
            if (child == 0) {
                ::close(start[1]);
                ::close(end[1]);
                ::_exit(holdBlock(i, start[0], made[1], end[0]) ? 0 : 1);
            }
            children.push_back(child);
        }
        ::close(start[1]); // they all wait for this
        char bytes[count];
        int madeCount = 0;
        for (int i = 0; i < count; ++i)
            madeCount += ::read(made[0], bytes, 1) == 1 && bytes[0] == 1 ? 1 : 0;
        QList<int> seen;
        QList<int> expected;
        for (int i = 0; i < count; ++i) {
            seen += readByHost(keyOf(i));
            expected += i;
        }
        ::close(end[1]);
        for (const pid_t child : children) {
            int status = -1;
            ::waitpid(child, &status, 0);
            QCOMPARE(status, 0);
        }
        for (const int fd : {start[0], end[0], made[0], made[1]})
            ::close(fd);
        QCOMPARE(madeCount, count);
        QCOMPARE(seen, expected);
        QCOMPARE(files(), QStringList());
    }

    void aKeyFileThatLeadsToAnothersBlockIsReplaced_data()
    {
        QTest::addColumn<bool>("isInOtherFolder");
        QTest::newRow("its key file lies beside it") << false;
        QTest::newRow("its key file lies elsewhere") << true;
    }

    void aKeyFileThatLeadsToAnothersBlockIsReplaced()
    {
        QFETCH(bool, isInOtherFolder);
        const QTemporaryDir otherFolder;
        if (isInOtherFolder)
            qputenv("TMPDIR", QFile::encodeName(otherFolder.path()));
        StopBlock others(keyOf(1));
        QVERIFY(others.create(sizeof(int)));
        writeNumber(others.memory(), 11);
        const key_t number = numberOf(others.memory().nativeKey());
        qputenv("TMPDIR", QFile::encodeName(m_folder->path()));

        // What is left of a run that was killed before the machine was last started, say.
        const QString path = KeyFile(keyOf(2), KeyFile::Kind::Block).path();
        QVERIFY(makeFileWithNumber(path, number));
        QVERIFY(writeFile(path, "1000000007\n"));
        StopBlock block(keyOf(2));
        QVERIFY(!block.attach());
        QVERIFY(!block.remove());
        QVERIFY(block.create(sizeof(int)));
        writeNumber(block.memory(), 22);
        QCOMPARE(readNumber(others.memory()), 11);
        QCOMPARE(readByHost(keyOf(2)), 22);
        QVERIFY(block.remove());
        QCOMPARE(readNumber(others.memory()), 11);
        QVERIFY(others.detach());
    }

    void anEmptyKeyFileOfTheSameNumberIsKeptAwayFrom()
    {
        // Its host may be about to look for its own block.
        StopBlock block(keyOf(1));
        QVERIFY(block.create(sizeof(int)));
        const key_t number = numberOf(block.memory().nativeKey());
        QVERIFY(block.remove());
        const QString other = KeyFile(keyOf(2), KeyFile::Kind::Block).path();
        QVERIFY(makeFileWithNumber(other, number));
        QVERIFY(makeFileWithNumber(KeyFile(keyOf(1), KeyFile::Kind::Block).path(), number));
        QVERIFY(block.create(sizeof(int)));
        QCOMPARE(readByHost(keyOf(2)), -1);
        QVERIFY(block.remove());
    }

    void whatWasLeftBehindIsFoundAgain_data()
    {
        QTest::addColumn<bool>("isNoted");
        QTest::newRow("by a run") << true;
        QTest::newRow("by a host") << false;
    }

    void whatWasLeftBehindIsFoundAgain()
    {
        QFETCH(bool, isNoted);
        const QString path = KeyFile(keyOf(1), KeyFile::Kind::Block).path();
        QVERIFY(writeFile(path, {}));
        const int id = ::shmget(numberOf(path), sizeof(int), 0600 | IPC_CREAT | IPC_EXCL);
        QVERIFY(id >= 0);
        if (isNoted)
            QVERIFY(writeFile(path, QByteArray::number(id) + '\n'));
        QVERIFY(writeFile(lockPathOf(keyOf(1)), {}));
        const int lock = ::semget(numberOf(lockPathOf(keyOf(1))), 1, 0600 | IPC_CREAT | IPC_EXCL);
        QVERIFY(lock >= 0);
        QCOMPARE(::semctl(lock, 0, SETVAL, 1), 0);

        StopBlock block(keyOf(1));
        QVERIFY(block.remove());
        QCOMPARE(files(), QStringList());
        QCOMPARE(::shmctl(id, IPC_STAT, nullptr), -1);
        QCOMPARE(::semctl(lock, 0, GETVAL), -1);
    }

    void candidatesThatWereLeftAreRemoved()
    {
        const QString old = m_folder->filePath(QStringLiteral("clipweir_keyfile_aaaaaa"));
        const QString fresh = m_folder->filePath(QStringLiteral("clipweir_keyfile_bbbbbb"));
        QVERIFY(writeFile(old, {}) && writeFile(fresh, {}));
        QFile file(old);
        QVERIFY(file.open(QIODevice::ReadWrite));
        QVERIFY(file.setFileTime(QDateTime::currentDateTime().addSecs(-120),
                                 QFileDevice::FileModificationTime));
        StopBlock block(keyOf(1));
        QVERIFY(block.create(1));
        QVERIFY(block.remove());
        QCOMPARE(files(), QStringList{QStringLiteral("clipweir_keyfile_bbbbbb")});
    }
};

CLIPWEIR_TEST_MAIN(tst_StopBlock)
#include "tst_stopblock.moc"
