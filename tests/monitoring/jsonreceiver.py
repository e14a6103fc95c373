"""A web server that receives JSON."""
from __future__ import annotations

import json
import threading
from collections.abc import Callable
from http.server import BaseHTTPRequestHandler, ThreadingHTTPServer
from typing import Any


class JsonReceiver(ThreadingHTTPServer):
    def __init__(self, answer: Callable[[str, Any], Any], address: tuple[str, int] = ("127.0.0.1", 0)) -> None:
        """Calls `answer` with the path and what was posted; its result is the answer."""
        class Handler(BaseHTTPRequestHandler):
            def do_POST(self) -> None:
                body = json.dumps(answer(self.path, json.loads(self.rfile.read(int(self.headers["Content-Length"])))))
                self.send_response(200)
                self.end_headers()
                self.wfile.write(body.encode())

            def log_message(self, *_) -> None:
                pass

        super().__init__(address, Handler)
        threading.Thread(target=self.serve_forever, daemon=True).start()

    def stop(self) -> None:
        self.shutdown()
        self.server_close()
