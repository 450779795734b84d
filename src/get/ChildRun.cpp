#include "ChildRun.h"

#include "SafeText.h"

#include <csignal>

#include <unistd.h>

namespace {

constexpr int patienceMs = 10000;
constexpr int mostErrorBytes = 2048;

} // namespace

class ChildRun::Process final : public QProcess
{
public:
    using QProcess::QProcess;

protected:
    void setupChildProcess() override { ::setsid(); }
};

ChildRun::ChildRun(const QString &program, const QStringList &arguments,
                   const QProcessEnvironment &environment, QObject *parent)
    : QObject(parent)
    , m_process(new Process(this))
    , m_reader([this](const QJsonObject &event, const QByteArray &line) {
        if (event.value(QLatin1String("event")) == QLatin1String("result"))
            m_result = event;
        else
            emit eventCame(event, line);
    })
{
    m_process->setProgram(program);
    m_process->setArguments(arguments);
    m_process->setProcessEnvironment(environment);
    m_process->setStandardInputFile(QProcess::nullDevice());
    m_patience.setSingleShot(true);
    connect(&m_patience, &QTimer::timeout, m_process, &QProcess::kill);
    connect(m_process, &QProcess::readyReadStandardOutput, this, &ChildRun::readEvents);
    connect(m_process, &QProcess::readyReadStandardError, this, &ChildRun::readErrors);
    connect(m_process, QOverload<int, QProcess::ExitStatus>::of(&QProcess::finished), this,
            &ChildRun::finish);
    connect(m_process, &QProcess::errorOccurred, this, [this](QProcess::ProcessError error) {
        if (error == QProcess::FailedToStart)
            finish();
    });
}

ChildRun::~ChildRun()
{
    m_process->disconnect(this);
    if (m_process->state() == QProcess::NotRunning)
        return;
    m_process->kill();
    m_process->waitForFinished();
}

void ChildRun::start()
{
    m_process->start(QIODevice::ReadOnly);
}

void ChildRun::stop()
{
    if (m_hasEnded || m_patience.isActive())
        return;
    // The run takes a second signal for impatience, so it gets one.
    m_patience.start(patienceMs);
    m_process->terminate();
}

QString ChildRun::lastWords() const
{
    const QList<QByteArray> lines = m_errors.trimmed().split('\n');
    return SafeText::line(QString::fromUtf8(lines.constLast()));
}

void ChildRun::readEvents()
{
    m_reader.take(m_process->readAllStandardOutput());
}

void ChildRun::readErrors()
{
    m_errors = (m_errors + m_process->readAllStandardError()).right(mostErrorBytes);
}

void ChildRun::finish()
{
    if (m_hasEnded)
        return;
    m_hasEnded = true;
    m_patience.stop();
    readEvents();
    readErrors();
    if (m_process->error() == QProcess::FailedToStart)
        m_errors = m_process->errorString().toUtf8();
    emit ended();
}
