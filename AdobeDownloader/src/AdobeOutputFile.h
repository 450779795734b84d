#ifndef ADOBEOUTPUTFILE_H
#define ADOBEOUTPUTFILE_H

#include "AdobeData.h"
#include "AdobePreference.h"
#include "FlvTimeline.h"
#include "OutputFile.h"

#include <QByteArray>
#include <QMap>
#include <QString>
#include <QVariantMap>

#include <functional>
#include <memory>
#include <vector>

/// Assembles the FLV file of an HDS stream: takes fragments in any order and writes them in
/// ascending order, each at most once. Main thread only.
class CAdobeOutputFile final
{
public:
    /// What is missing from a file.
    struct Losses
    {
        int given = 0; ///< fragments written, the lost ones included
        int missing = 0; ///< fragments that never came
        int unusable = 0; ///< fragments without a sound or picture tag that can be written
        int cut = 0; ///< fragments that end before their box does
        qint64 skippedTags = 0; ///< tags left out: encrypted, filtered or of no known type

        [[nodiscard]] bool isNone() const
        {
            return missing == 0 && unusable == 0 && cut == 0 && skippedTags == 0;
        }
    };

    /// @param options    @param data those of the stream; they outlive this object
    explicit CAdobeOutputFile(CAdobePreference &options = *CAdobePreference::GetInstance(),
                              const CAdobeData &data = *CAdobeData::GetInstance());

    /// That of the process, for downloads that are given none of their own.
    static CAdobeOutputFile *GetInstance();

    /// Begins a new file and forgets what belonged to the one before.
    /// @param firstFragment the fragment that the file starts with; the file waits for it
    void Begin(int firstFragment);

    /// Closes the file and forgets the fragments that still wait.
    void End();

    /// Takes a fragment's bytes as fetched, in the place of what was there under that number. Empty
    /// bytes stand for a fragment that was given up: the file goes on without it.
    void SetFragContent(int fragNum, const QByteArray &data);

    /// As SetFragContent() with the content of a file, which is read when the fragment is written.
    /// @param bytes the size of that file; one of another size, or that cannot be read, makes the
    ///              fragment a lost one
    void SetFragFile(int fragNum, const QString &path, qint64 bytes);

    /// Writes every fragment whose turn has come. Returns how many, or -1 when the file cannot be
    /// written; that is final for this file.
    int WriteFlvFile();

    /// The fragment whose turn has come, but whose file holds it no more; 0 when there is none. It
    /// is waited for until it is handed in again.
    [[nodiscard]] int LostFragment() const;

    /// Sends the progress line: the last fragment written and the fragment count.
    void OutProgress() const;

    /// The number of the last fragment written; 0 when none has been.
    [[nodiscard]] int GetWriteFragNum() const;

    /// Whether a sound or picture tag has been written.
    [[nodiscard]] bool HasMedia() const;

    /// What is missing up to the last fragment written.
    [[nodiscard]] Losses GetLosses() const;

    /// Whether the file stands under its name with everything that was written: somebody may have
    /// removed or replaced it meanwhile.
    [[nodiscard]] bool IsInPlace() const;

    /// The bytes of the fragments that wait in memory.
    [[nodiscard]] qint64 HeldBytes() const;

    /// The memory of a fragment that has been written, for the next one to arrive in: fresh memory
    /// costs the system more than the copy into it. Empty when there is none.
    [[nodiscard]] QByteArray TakeSpare();

    /// The path that the options give; where they name no file, it has the stream's name.
    [[nodiscard]] QString FilePath() const;

    /// Is asked after each fragment that WriteFlvFile() writes; false makes it return. It must not
    /// call back into this object.
    void SetGoOn(const std::function<bool()> &goOn);

    /// The 13 bytes that a file begins with.
    [[nodiscard]] static QByteArray GetFlvHeader(bool audio, bool video);

    /// Whether the fragment has an mdat box. The size of one that is empty or runs past the data is
    /// set so that it ends with the data.
    static bool VerifyFragment(QByteArray &data);

    /// Whether the fragment has an mdat box that does not run past the data.
    [[nodiscard]] static bool IsWhole(const QByteArray &data);

    /// Turns a fragment into FLV tags, which its entry keeps; none for a fragment without mdat.
    void DecodeFragment(int fragNum, QByteArray &data);

    /// Writes the rendition's metadata as a script tag at the start of the file, if it has any.
    /// Returns false when the file cannot be written.
    bool WriteMetadata();

private:
    Q_DISABLE_COPY(CAdobeOutputFile)

    [[nodiscard]] QVariant option(const char *key) const;
    [[nodiscard]] QString fileName() const;
    bool openFile();
    bool readBack(int fragNum);
    bool writeFragment(int fragNum);
    bool write(const QByteArray &data);
    QVector<FlvTag> takeTags(int fragNum, QByteArray &data);
    void keepSpare(QByteArray &memory);
    QByteArray takeResponse(int fragNum);

    CAdobePreference &m_options;
    const CAdobeData &m_data;
    QMap<int, QVariant> m_fragments; // maps, by fragment number
    int m_nextFragment = 1;
    int m_lastWritten = 0;
    int m_lostFragment = 0;
    qint64 m_heldBytes = 0;
    Losses m_losses;
    bool m_hasMedia = false;
    std::unique_ptr<FlvTimeline> m_timeline;
    QByteArray m_tags; // of the fragment written last: its memory serves the next one
    std::vector<QByteArray> m_spares;
    OutputFile m_file;
    std::function<bool()> m_goOn;
    bool m_hasFailed = false;
    bool m_hasWarned = false;
};

#endif
