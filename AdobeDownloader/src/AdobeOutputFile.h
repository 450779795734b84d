#ifndef ADOBEOUTPUTFILE_H
#define ADOBEOUTPUTFILE_H

#include "AdobeData.h"
#include "AdobePreference.h"
#include "FlvTimeline.h"
#include "SegmentSink.h"

#include <QByteArray>
#include <QString>
#include <QVariant>

#include <functional>
#include <memory>

/// Assembles the FLV file of an HDS stream: takes fragments in any order and writes them in
/// ascending order, each at most once. Main thread only.
class CAdobeOutputFile final : public SegmentSink
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

    // What every stream's file does, by the names that this one has for it.

    void Begin(int firstFragment) { begin(firstFragment); }
    void End() { end(); }
    void SetFragContent(int fragNum, const QByteArray &data) { take(fragNum, data); }
    void SetFragFile(int fragNum, const QString &path, qint64 bytes)
    {
        takeFile(fragNum, path, bytes);
    }
    [[nodiscard]] int LostFragment() const { return hasLost() ? static_cast<int>(lost()) : 0; }
    [[nodiscard]] qint64 HeldBytes() const { return heldBytes(); }
    [[nodiscard]] QByteArray TakeSpare() { return takeSpare(); }
    void SetGoOn(const std::function<bool()> &goOn) { setGoOn(goOn); }

    /// Writes every fragment whose turn has come, up to the stream's last one. Returns how many, or
    /// -1 when the file cannot be written; that is final for this file.
    int WriteFlvFile() { return write(m_data.GetFragCount()); }

    /// Sends the progress line: the last fragment written and the fragment count.
    void OutProgress() const;

    /// The number of the last fragment written; 0 when none has been.
    [[nodiscard]] int GetWriteFragNum() const { return m_lastWritten; }

    /// Whether a sound or picture tag has been written.
    [[nodiscard]] bool HasMedia() const { return m_hasMedia; }

    /// What is missing up to the last fragment written.
    [[nodiscard]] Losses GetLosses() const { return m_losses; }

    /// The path that the options give; where they name no file, it has the stream's name.
    [[nodiscard]] QString FilePath() const;

    /// The 13 bytes that a file begins with.
    [[nodiscard]] static QByteArray GetFlvHeader(bool audio, bool video);

    /// Whether the fragment has an mdat box. The size of one that is empty or runs past the data is
    /// set so that it ends with the data.
    static bool VerifyFragment(QByteArray &data);

    /// Whether the fragment has an mdat box that does not run past the data.
    [[nodiscard]] static bool IsWhole(const QByteArray &data);

    /// What a fragment holds.
    struct Content
    {
        int begin = 0; ///< of the tags in the fragment
        int end = 0; ///< likewise; nothing when there is no mdat box
        QVector<FlvTag> tags;
        int skipped = 0; ///< tags left out: encrypted, filtered or of no known type
        bool isCut = false; ///< it ends before its box does
        bool hasMedia = false; ///< a tag of sound or picture
    };

    /// Looks into a fragment, whose mdat box is repaired as by VerifyFragment().
    [[nodiscard]] static Content ContentOf(QByteArray &data);

    /// Turns a fragment into the FLV tags that are written next; none for a fragment without mdat.
    void DecodeFragment(int fragNum, QByteArray &data);

    /// Writes the rendition's metadata as a script tag at the start of the file, if it has any.
    /// Returns false when the file cannot be written.
    bool WriteMetadata();

    /// Warns of what the file lacks, and tells the host how big it is if it is of any use: if it
    /// has sound or pictures.
    [[nodiscard]] bool conclude() override;
    [[nodiscard]] QString path() const override { return FilePath(); }
    [[nodiscard]] QString nameOf(qint64 number) const override;

private:
    Q_DISABLE_COPY(CAdobeOutputFile)

    void reset() override;
    [[nodiscard]] bool writeHead() override;
    [[nodiscard]] bool writeSegment(qint64 number, QByteArray &content) override;
    [[nodiscard]] QVariant option(const char *key) const;
    [[nodiscard]] QString fileName() const;
    QVector<FlvTag> takeTags(int fragNum, QByteArray &data);
    void warnOfLosses() const;

    CAdobePreference &m_options;
    const CAdobeData &m_data;
    int m_lastWritten = 0;
    Losses m_losses;
    bool m_hasMedia = false;
    std::unique_ptr<FlvTimeline> m_timeline;
    QByteArray m_tags; // of one fragment: its memory serves the next one
    bool m_hasWarned = false;
};

#endif
