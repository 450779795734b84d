"""The servers that the programs fetch from, all on loopback."""

import asyncio
import multiprocessing
import os
import random
import subprocess
import sys
import time
import urllib.request

NGINX_TEXT = '''daemon off;
master_process off;
pid "{folder}/nginx.pid";
error_log "{folder}/error.log";
load_module /usr/lib/nginx/modules/ngx_http_echo_module.so;
events {{ worker_connections 256; }}
http {{
    include /etc/nginx/mime.types;
    types {{ video/f4m f4m; }}
    access_log off;
    sendfile on;
    keepalive_requests 100000;
    client_body_temp_path "{folder}/temp";
    proxy_temp_path "{folder}/temp";
    fastcgi_temp_path "{folder}/temp";
    uwsgi_temp_path "{folder}/temp";
    scgi_temp_path "{folder}/temp";
    server {{
        listen 127.0.0.1:{port};
        location / {{ root "{files}"; }}
        location /limited/ {{ alias "{files}/"; limit_rate 10m; }}
        location /late/ {{ echo_sleep 0.020; echo_exec /$late_path; }}
        set $late_path "";
        if ($uri ~ ^/late/(.*)$) {{ set $late_path $1; }}
    }}
}}
'''


class Nginx:
    """Serves a folder. What is asked for below "/late/" is answered 20 ms later, what
    is asked for below "/limited/" with 10 MiB a second for each request."""

    def __init__(self, folder, files):
        self.folder = folder
        self.files = files

    def __enter__(self):
        for _ in range(5):
            port = random.randrange(20000, 32000)
            with open(f'{self.folder}/nginx.conf', 'w') as file:
                file.write(NGINX_TEXT.format(folder=self.folder, files=self.files, port=port))
            self.process = subprocess.Popen(
                ['/usr/sbin/nginx', '-p', self.folder, '-c', f'{self.folder}/nginx.conf', '-e',
                 f'{self.folder}/error.log'], stderr=subprocess.DEVNULL)
            self.address = f'http://127.0.0.1:{port}'
            if self.answers():
                return self
            self.__exit__()
        sys.exit(f'nginx does not start; see {self.folder}/error.log')

    def __exit__(self, *_):
        self.process.terminate()
        self.process.wait()

    def answers(self):
        probe = f'{self.files}/probe'
        with open(probe, 'w') as file:
            file.write(self.folder)
        opener = urllib.request.build_opener(urllib.request.ProxyHandler({}))
        for _ in range(50):
            if self.process.poll() is not None:
                return False
            try:
                with opener.open(f'{self.address}/probe') as reply:
                    # Somebody else's server may hold the port.
                    return reply.read().decode() == self.folder
            except OSError:
                time.sleep(0.1)
        return False


class Relay:
    """Passes connections on to a server, each direction half the round trip later."""

    WINDOW = 32 << 20  # bytes on their way at one time, in each direction

    def __init__(self, target_port, round_trip):
        self.target_port = target_port
        self.delay = round_trip / 2

    def __enter__(self):
        receiver, sender = multiprocessing.Pipe()
        self.process = multiprocessing.Process(target=self.serve, args=(sender,), daemon=True)
        self.process.start()
        self.address = f'http://127.0.0.1:{receiver.recv()}'
        return self

    def __exit__(self, *_):
        self.process.terminate()
        self.process.join()

    def serve(self, port_to):
        async def run():
            server = await asyncio.start_server(self.connect, '127.0.0.1', 0, limit=1 << 20)
            port_to.send(server.sockets[0].getsockname()[1])
            await server.serve_forever()

        asyncio.run(run())

    async def connect(self, reader, writer):
        await asyncio.sleep(2 * self.delay)  # the handshake is a round trip too
        target_reader, target_writer = await asyncio.open_connection(
            '127.0.0.1', self.target_port, limit=1 << 20)
        await asyncio.gather(self.carry(reader, target_writer),
                             self.carry(target_reader, writer))

    async def carry(self, reader, writer):
        loop = asyncio.get_running_loop()
        pieces = asyncio.Queue()
        bytes_on_their_way = 0
        has_room = asyncio.Event()

        async def deliver():
            nonlocal bytes_on_their_way
            while True:
                due, piece = await pieces.get()
                await asyncio.sleep(due - loop.time())
                bytes_on_their_way -= len(piece)
                has_room.set()
                if not piece:
                    writer.close()
                    return
                writer.write(piece)
                await writer.drain()

        delivery = asyncio.create_task(deliver())
        try:
            piece = None
            while piece != b'':
                while bytes_on_their_way >= self.WINDOW:
                    has_room.clear()
                    await has_room.wait()
                piece = await reader.read(1 << 18)
                bytes_on_their_way += len(piece)
                pieces.put_nowait((loop.time() + self.delay, piece))
            await delivery
        except OSError:
            delivery.cancel()
            writer.close()


def write_random(path, size):
    """A file that no layer can compress or share."""
    with open(path, 'wb') as file:
        piece = os.urandom(1 << 20)
        for position in range(0, size, len(piece)):
            file.write(position.to_bytes(8, 'big'))
            file.write(piece[8:size - position])
        file.truncate(size)
