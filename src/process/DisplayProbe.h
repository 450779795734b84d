#ifndef DISPLAYPROBE_H
#define DISPLAYPROBE_H

/// Finds out whether the toolkit can start on the display that it is told to use.
class DisplayProbe final
{
public:
    DisplayProbe() = delete;

    /// Starts the toolkit in a process of its own, for where it cannot it ends the one that it is
    /// in, without a word. Waits some seconds at most for a display that does not answer. To be
    /// called while there is neither another thread nor an application object.
    [[nodiscard]] static bool isUsable(int argc, char *argv[]);
};

#endif
