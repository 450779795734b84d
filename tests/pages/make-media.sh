#!/bin/sh
# Makes the media that the pages of the tests play: noise, so that seconds of a small picture are
# megabytes.
# usage: make-media.sh folder
set -eu

mkdir -p "$1"
cd "$1"

encode() { # seconds megabits-per-second output-option... file
    source="testsrc2=s=160x120:r=25:d=$1,noise=alls=100:allf=t"
    rate=${2}M
    shift 2
    ffmpeg -v error -y -f lavfi -i "$source" -c:v libx264 -preset ultrafast -profile:v baseline \
        -level 3.0 -pix_fmt yuv420p -g 25 -b:v "$rate" -map_metadata -1 -fflags +bitexact "$@" </dev/null
}

# Above 5 MiB is what a search ends for, above 1 MiB what it notes.
encode 10 5 -movflags +faststart clip.mp4
encode 8 2 -movflags +faststart second.mp4
encode 3 4 -movflags +faststart advert.mp4
encode 6 18 -movflags +faststart heavy-advert.mp4
encode 12 6 -movflags +faststart film.mp4
ffmpeg -v error -y -i clip.mp4 -c copy -map_metadata -1 \
    -movflags +frag_keyframe+empty_moov+default_base_moof fragmented.mp4 </dev/null
mkdir -p hls dash
ffmpeg -v error -y -i second.mp4 -c copy -f hls -hls_time 2 -hls_playlist_type vod \
    -hls_segment_type fmp4 -hls_fmp4_init_filename init.m4s hls/list.m3u8 </dev/null
ffmpeg -v error -y -i second.mp4 -c copy -f dash -seg_duration 2 dash/list.mpd </dev/null
