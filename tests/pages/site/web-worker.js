importScripts('/pieces.js');
addEventListener('message', async event => {
    const piece = await rangeOf('/watch/fragmented', ...event.data);
    postMessage(piece, [piece]);
});
