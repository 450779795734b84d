#ifndef PAGERUN_H
#define PAGERUN_H

#include "ProgramRun.h"
#include "ScriptedServer.h"

/// Text of the program's command line and files.
QString option(const char *text);

/// The result file of the day, in the default folder.
QString csvPath();

/// Pseudo-random bytes, the same in every run.
QByteArray testBytes(int size);

/// A page that plays one video.
QByteArray videoPage(const QByteArray &videoAddress, const QByteArray &head = QByteArray());

HttpReply htmlReply(const QByteArray &html);
HttpReply mediaReply(const QByteArray &body, const QByteArray &contentType = "video/mp4");

/// Whether the program's own downloader sent a request, rather than its web engine.
bool isFromDownloader(const HttpRequest &request);

/// Scripts a page with one video: the engine gets the whole video, the downloader what the handler
/// says. Returns the page's address.
QString servePage(ScriptedServer &server, const QByteArray &video,
                  const ScriptedServer::Handler &forDownloader);

/// The same, with a download that stands still after so many bytes.
QString serveStalling(ScriptedServer &server, const QByteArray &video, int bytes);

/// The names of a page's files.
QString pageHash(const QString &pageAddress);

/// Host lines, each as the program must write it.
QByteArray parsingLine(const QString &pageAddress);
QByteArray fixedLine(const QByteArray &text);
QByteArray composedLine(const QByteArray &text);

/// The record line of a run that found one http file.
QByteArray recordLine(const QString &videoAddress, qint64 size, const QByteArray &format,
                      const QByteArray &thumbUrl = QByteArray(),
                      const QByteArray &title = QByteArray());

/// Asks the run of a page to end, by a second run of the program.
bool askToExit(const QString &pageAddress);

/// The lines without progress: a transfer reports it as often as time allows.
QByteArray withoutProgress(const QByteArray &errorOutput);

/// Without the line that tells an address which the page has in its document. A run may see that
/// before the server has answered, where the machine is busy.
QByteArray withoutTold(const QByteArray &errorOutput, const QString &address);

#endif
