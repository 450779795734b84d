#include "Usage.h"

#include "HostEvents.h"

void printUsage()
{
    static const char *const lines[] = {
        "clipweir: 4.0.0.0001",
        "Usage:",
        "  clipweir --url https://www.example.com/watch/12345",
        "  clipweir --url https://video.example.org/clips/holiday.html",
        "",
        "  --url <url>: page url contains video",
        "  --saveto <fullpath>: save video to full path",
        "  --timeout <wait_time>: timeout for url analysis",
        "  --format mp4: prefer mp4 format(default any)",
        "  --quality 480: prefer 480p format(default 480)",
        "  --proxy: ProxyType:Host:Port",
        "",
        "Flags:",
        "  --thumb: download thumb file",
        "  --partial: only download 100K to save time",
        "  --smartname: use title as filename",
        "  --noresume: disable resume feature, download from beginning",
        "  --keepimage: allow download image in url",
        ("  --log: allow log file(video_output_path\\url.log) and csv "
         "log(video_output_path\\date.csv)"),
        "  --show: show webview frame",
        "  --info: show flash version",
        "  --exit: notify the process should exit asap",
        "  --f4f: support f4f video download",
        " --resume",
        " --size size",
    };
    for (const char *line : lines)
        HostEvents::send(event::UsageLine{QString::fromLatin1(line)});
}
