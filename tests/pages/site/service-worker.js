addEventListener('install', () => skipWaiting());
addEventListener('activate', event => event.waitUntil(clients.claim()));
addEventListener('fetch', event => {
    if (new URL(event.request.url).pathname !== '/of-the-worker/clip')
        return;
    const headers = new Headers();
    if (event.request.headers.has('Range'))
        headers.set('Range', event.request.headers.get('Range'));
    event.respondWith(fetch('/watch/clip', { headers }));
});
