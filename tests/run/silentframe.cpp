// Preloaded into a run: what the program puts into a frame by itself never gets there, as if its
// scripts took for ever.

class QString;
class QUrl;

/// QWebFrame::setHtml(), by the name that the linker knows it by.
extern "C" __attribute__((visibility("default"))) void
setNoHtml(void *frame, const QString &html,
          const QUrl &base) __asm__("_ZN9QWebFrame7setHtmlERK7QStringRK4QUrl");

void setNoHtml(void *, const QString &, const QUrl &) { }
