// Plays a file that is fetched in pieces.

const type = 'video/mp4; codecs="avc1.42c01e"';
const pieceBytes = 200000;

// Makes a player whose media come from fetchPiece(first, last) -> ArrayBuffer, until one is short.
function playPieces(video, fetchPiece) {
    const media = new MediaSource();
    video.src = URL.createObjectURL(media);
    media.addEventListener('sourceopen', async () => {
        const buffer = media.addSourceBuffer(type);
        for (let first = 0;; first += pieceBytes) {
            const piece = await fetchPiece(first, first + pieceBytes - 1);
            if (piece.byteLength === 0)
                break;
            buffer.appendBuffer(piece);
            await new Promise(done => buffer.addEventListener('updateend', done, { once: true }));
            if (piece.byteLength < pieceBytes)
                break;
        }
        media.endOfStream();
    }, { once: true });
}

async function rangeOf(address, first, last) {
    const answer = await fetch(address, { headers: { Range: `bytes=${first}-${last}` } });
    return answer.status === 206 ? answer.arrayBuffer() : new ArrayBuffer(0);
}

async function bodyOf(address) {
    const answer = await fetch(address);
    return answer.ok ? answer.arrayBuffer() : new ArrayBuffer(0);
}
