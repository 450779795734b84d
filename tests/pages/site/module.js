export async function play(place, address) {
    const video = document.createElement('video');
    video.muted = true;
    video.src = address;
    place.append(video);
    await video.play();
}
