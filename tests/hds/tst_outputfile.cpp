#include "OutputFile.h"
#include "TestFiles.h"
#include "TestMain.h"

#include <QDir>
#include <QFileInfo>

#include <atomic>
#include <memory>
#include <vector>

#include <fcntl.h>
#include <sys/fsuid.h>
#include <sys/stat.h>
#include <unistd.h>

Q_DECLARE_METATYPE(OutputFile::Mode)

namespace {

constexpr uid_t nobody = 65534;

const QByteArray before = "what was there";
const QByteArray after = "new";

struct stat statusOf(const QString &path)
{
    struct stat status
    {
    };
    ::lstat(QFile::encodeName(path).constData(), &status);
    return status;
}

bool isFile(const QString &path)
{
    return S_ISREG(statusOf(path).st_mode);
}

bool isPipe(const QString &path)
{
    return S_ISFIFO(statusOf(path).st_mode);
}

bool makePipe(const QString &path)
{
    return ::mkfifo(QFile::encodeName(path).constData(), 0600) == 0;
}

bool makeHardLink(const QString &target, const QString &path)
{
    return ::link(QFile::encodeName(target).constData(), QFile::encodeName(path).constData()) == 0;
}

} // namespace

class tst_OutputFile : public QObject
{
    Q_OBJECT

    std::unique_ptr<QTemporaryDir> m_folder;
    QString m_path;

    [[nodiscard]] QString path(const char *name) const
    {
        return m_folder->filePath(QLatin1String(name));
    }

    /// Writes a few bytes to the file.
    static bool write(const QString &path, OutputFile::Mode mode)
    {
        OutputFile file;
        return file.open(path, mode) && file.write(after.constData(), after.size());
    }

    static void modes()
    {
        QTest::addColumn<OutputFile::Mode>("mode");
        QTest::newRow("append") << OutputFile::Mode::Append;
        QTest::newRow("replace") << OutputFile::Mode::Replace;
    }

private slots:
    void init()
    {
        m_folder = std::make_unique<QTemporaryDir>();
        m_path = path("file");
    }

    void aNewFile_data() { modes(); }

    void aNewFile()
    {
        QFETCH(OutputFile::Mode, mode);
        const mode_t mask = ::umask(027);
        const bool isWritten = write(m_path, mode);
        ::umask(mask);
        QVERIFY(isWritten);
        QCOMPARE(readFile(m_path), after);
        QCOMPARE(statusOf(m_path).st_mode & 0777U, 0640U);
    }

    void appendingAddsToTheFile()
    {
        writeFile(m_path, before);
        QVERIFY(makeHardLink(m_path, path("other")));
        OutputFile file;
        QVERIFY(file.open(m_path, OutputFile::Mode::Append));
        QCOMPARE(file.size(), qint64(before.size()));
        QVERIFY(file.write(after.constData(), after.size()));
        QCOMPARE(file.size(), qint64(before.size() + after.size()));
        QCOMPARE(readFile(m_path), before + after);
        QCOMPARE(readFile(path("other")), before + after);
    }

    void rewinding()
    {
        writeFile(m_path, before);
        OutputFile file;
        QVERIFY(file.open(m_path, OutputFile::Mode::Append));
        QVERIFY(file.rewind());
        QVERIFY(file.write(after.constData(), after.size()));
        QCOMPARE(file.pos(), qint64(after.size()));
        QCOMPARE(readFile(m_path), after + before.mid(after.size()));
        QVERIFY(file.resize(file.pos()));
        QCOMPARE(readFile(m_path), after);
    }

    void replacingLeavesOtherNamesAlone()
    {
        writeFile(m_path, before);
        QVERIFY(makeHardLink(m_path, path("other")));
        QVERIFY(write(m_path, OutputFile::Mode::Replace));
        QCOMPARE(readFile(m_path), after);
        QCOMPARE(readFile(path("other")), before);
    }

    void replacingAPipe()
    {
        QVERIFY(makePipe(m_path));
        QVERIFY(write(m_path, OutputFile::Mode::Replace));
        QVERIFY(isFile(m_path));
        QCOMPARE(readFile(m_path), after);
    }

    void replacingBehindLinks_data()
    {
        QTest::addColumn<QString>("link");
        QTest::addColumn<bool>("isThere");
        for (const bool isThere : {true, false}) {
            const char *const end = isThere ? "" : ", dangling";
            QTest::addRow("absolute%s", end) << QStringLiteral("%1/folder/target") << isThere;
            QTest::addRow("relative%s", end) << QStringLiteral("folder/target") << isThere;
            QTest::addRow("of a link%s", end) << QStringLiteral("folder/link") << isThere;
            QTest::addRow("with a detour%s", end)
                << QStringLiteral("folder/../folder/./target") << isThere;
        }
    }

    void replacingBehindLinks()
    {
        QFETCH(QString, link);
        QFETCH(bool, isThere);
        QVERIFY(QDir(m_folder->path()).mkdir(QStringLiteral("folder")));
        QVERIFY(QFile::link(QStringLiteral("target"), path("folder/link")));
        QVERIFY(QFile::link(link.replace(QLatin1String("%1"), m_folder->path()), m_path));
        if (isThere) {
            writeFile(path("folder/target"), before);
            QVERIFY(makeHardLink(path("folder/target"), path("other")));
        }
        QVERIFY(write(m_path, OutputFile::Mode::Replace));
        QVERIFY(QFileInfo(m_path).isSymLink());
        QVERIFY(isFile(path("folder/target")));
        QCOMPARE(readFile(path("folder/target")), after);
        QCOMPARE(readFile(path("other")), isThere ? before : QByteArray());
    }

    void devicesStay_data() { modes(); }

    void devicesStay()
    {
        QFETCH(OutputFile::Mode, mode);
        QVERIFY(QFile::link(QStringLiteral("/dev/null"), m_path));
        OutputFile first;
        OutputFile second; // any number may write to a device
        for (OutputFile *file : {&first, &second}) {
            QVERIFY(file->open(m_path, mode));
            QVERIFY(file->write(after.constData(), after.size()));
        }
        QVERIFY(S_ISCHR(statusOf(QStringLiteral("/dev/null")).st_mode));
        QVERIFY(QFileInfo(m_path).isSymLink());
    }

    void aFullDevice()
    {
        OutputFile file;
        QVERIFY(file.open(QStringLiteral("/dev/full"), OutputFile::Mode::Replace));
        QVERIFY(!file.write(after.constData(), after.size()));
        QVERIFY(!file.errorString().isEmpty());
    }

    void appendingToAPipeWithoutAReaderFailsAtOnce()
    {
        QVERIFY(makePipe(m_path));
        OutputFile file;
        QVERIFY(!file.open(m_path, OutputFile::Mode::Append));
        QVERIFY(!file.errorString().isEmpty());
        QVERIFY(isPipe(m_path));
    }

    void appendingToAPipeThatIsRead()
    {
        QVERIFY(makePipe(m_path));
        const int reader = ::open(QFile::encodeName(m_path).constData(), O_RDONLY | O_NONBLOCK);
        QVERIFY(reader >= 0);
        QVERIFY(write(m_path, OutputFile::Mode::Append));
        char bytes[100];
        const ssize_t count = ::read(reader, bytes, sizeof bytes);
        ::close(reader);
        QCOMPARE(QByteArray(bytes, static_cast<int>(count)), after);
    }

    /// What the process itself has open goes by names that lead nowhere.
    void anOpenFileByItsNumber()
    {
        int ends[2] = {};
        QVERIFY(::pipe(ends) == 0);
        const QString name = QStringLiteral("/proc/self/fd/%1").arg(ends[1]);
        QVERIFY(write(name, OutputFile::Mode::Replace));
        char bytes[100];
        const ssize_t count = ::read(ends[0], bytes, sizeof bytes);
        ::close(ends[0]);
        ::close(ends[1]);
        QCOMPARE(QByteArray(bytes, static_cast<int>(count)), after);
    }

    void whatCannotBeOpened_data()
    {
        QTest::addColumn<QString>("name");
        QTest::newRow("a folder") << QString();
        QTest::newRow("no such folder") << QStringLiteral("none/file");
        QTest::newRow("a file as a folder") << QStringLiteral("there/file");
        QTest::newRow("links in a circle") << QStringLiteral("circle");
    }

    void whatCannotBeOpened()
    {
        QFETCH(QString, name);
        writeFile(path("there"), before);
        QVERIFY(QFile::link(QStringLiteral("circle"), path("circle")));
        for (const auto mode : {OutputFile::Mode::Append, OutputFile::Mode::Replace}) {
            OutputFile file;
            QVERIFY(!file.open(m_folder->filePath(name), mode));
            QVERIFY(!file.isOpen());
            QVERIFY(!file.errorString().isEmpty());
        }
    }

    /// The folder is not to be written, but the file is. Permissions do not bind root, who looks at
    /// the files as somebody else meanwhile.
    void whatCannotBeRemovedIsEmptied()
    {
        const QString kept = path("kept");
        writeFile(kept + QStringLiteral("/file"), before);
        const bool isRoot = ::geteuid() == 0;
        const QByteArray name = QFile::encodeName(kept + QStringLiteral("/file"));
        QVERIFY(!isRoot || ::chown(name.constData(), nobody, nobody) == 0);
        QVERIFY(::chmod(QFile::encodeName(m_folder->path()).constData(), 0711) == 0);
        QVERIFY(::chmod(QFile::encodeName(kept).constData(), 0555) == 0);
        if (isRoot)
            ::setfsuid(nobody);
        const bool isWritten = write(kept + QStringLiteral("/file"), OutputFile::Mode::Replace);
        const bool isNewWritten = write(kept + QStringLiteral("/new"), OutputFile::Mode::Replace);
        if (isRoot)
            ::setfsuid(0);
        ::chmod(QFile::encodeName(kept).constData(), 0755);
        QVERIFY(isWritten);
        QVERIFY(!isNewWritten);
        QCOMPARE(readFile(kept + QStringLiteral("/file")), after);
    }

    void onlyOneWrites_data()
    {
        QTest::addColumn<OutputFile::Mode>("first");
        QTest::addColumn<OutputFile::Mode>("second");
        for (const auto first : {OutputFile::Mode::Append, OutputFile::Mode::Replace}) {
            for (const auto second : {OutputFile::Mode::Append, OutputFile::Mode::Replace}) {
                QTest::addRow("%s, %s", first == OutputFile::Mode::Append ? "append" : "replace",
                              second == OutputFile::Mode::Append ? "append" : "replace")
                    << first << second;
            }
        }
    }

    void onlyOneWrites()
    {
        QFETCH(OutputFile::Mode, first);
        QFETCH(OutputFile::Mode, second);
        QVERIFY(!OutputFile::isBeingWritten(m_path));
        OutputFile writer;
        QVERIFY(writer.open(m_path, first));
        QVERIFY(writer.write(before.constData(), before.size()));

        OutputFile other;
        QVERIFY(OutputFile::isBeingWritten(m_path));
        QVERIFY(!other.open(m_path, second));
        QCOMPARE(other.errorString(), QStringLiteral("another run is writing it"));
        QCOMPARE(readFile(m_path), before);
        QVERIFY(writer.write(before.constData(), before.size()));

        writer.close();
        QVERIFY(!OutputFile::isBeingWritten(m_path));
        QVERIFY(other.open(m_path, second));
        QCOMPARE(other.size(),
                 second == OutputFile::Mode::Append ? qint64(2 * before.size()) : qint64(0));
    }

    /// A file that its user has removed may be begun anew while the run goes on with the old one.
    void aRemovedFileIsNotInTheWay()
    {
        OutputFile writer;
        QVERIFY(writer.open(m_path, OutputFile::Mode::Append));
        QVERIFY(QFile::remove(m_path));
        QVERIFY(write(m_path, OutputFile::Mode::Append));
        QCOMPARE(readFile(m_path), after);
    }

    void onlyOneOfManyWrites_data() { modes(); }

    void onlyOneOfManyWrites()
    {
        QFETCH(OutputFile::Mode, mode);
        constexpr int rounds = 200;
        constexpr int writers = 4;
        for (int round = 0; round < rounds; ++round) {
            std::vector<std::unique_ptr<OutputFile>> files;
            std::vector<std::unique_ptr<QThread>> threads;
            std::atomic<int> ready{0};
            std::atomic<int> opened{0};
            for (int i = 0; i < writers; ++i) {
                files.push_back(std::make_unique<OutputFile>());
                OutputFile *const file = files.back().get();
                threads.emplace_back(QThread::create([&ready, &opened, file, mode, this] {
                    ++ready;
                    while (ready < writers)
                        QThread::yieldCurrentThread();
                    if (file->open(m_path, mode))
                        ++opened;
                }));
                threads.back()->start();
            }
            for (const auto &thread : threads)
                thread->wait();
            QCOMPARE(opened.load(), 1);
            QVERIFY(OutputFile::isBeingWritten(m_path)); // the one that opened has the name's file
        }
    }
};

CLIPWEIR_TEST_MAIN(tst_OutputFile)
#include "tst_outputfile.moc"
