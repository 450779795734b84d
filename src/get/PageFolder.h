#ifndef PAGEFOLDER_H
#define PAGEFOLDER_H

#include <QString>

/// The folder that a page's run works in, below the folder of the files, and the way of what
/// arrives there to its name. A run has nothing else of the user's within its reach. Its place
/// depends on the address alone, so that the next command goes on there.
///
/// A note beside the folder, which the run cannot reach, keeps the name while the file is moved:
/// when the command is killed in between, the next one finishes what it began.
class PageFolder final
{
public:
    /// @param folder that of the files
    PageFolder(const QString &folder, const QString &address);

    /// Makes the folder; false when that fails.
    [[nodiscard]] bool make() const;

    [[nodiscard]] QString videoPath() const; ///< where the run shall write
    [[nodiscard]] QString thumbPath() const; ///< where it writes the picture

    /// Gives the video its name; one that is there is left alone, and a number makes another.
    /// Returns the path, or nothing when it cannot be done.
    /// @param name relative to the folder of the files
    [[nodiscard]] QString deliverVideo(const QString &name) const;

    /// Gives the picture the video's name with its own extension; nothing when there is none.
    [[nodiscard]] QString deliverThumb(const QString &video) const;

    /// Ends a delivery that a command before did not end. Returns the file's path; nothing when
    /// there is none to end.
    [[nodiscard]] QString finishDelivery() const;

    /// Forgets the delivery and removes the folder with all that is in it: the page is done with.
    void remove() const;

    /// Removes the folder when it is empty.
    void removeIfEmpty() const;

private:
    [[nodiscard]] QString deliver(const QString &from, const QString &name, bool isNoted) const;
    [[nodiscard]] QString notePath() const;
    [[nodiscard]] QString readNote() const;
    [[nodiscard]] bool writeNote(const QString &name) const;

    const QString m_folder; ///< absolute
    const QString m_address;
    const QString m_work;
    const QString m_own;
};

#endif
