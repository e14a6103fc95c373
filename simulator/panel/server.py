"""The front panel: a web page of the devices that run on this machine, live."""
from __future__ import annotations

import argparse
import asyncio
import contextlib
import ipaddress
import os
import sys
from pathlib import Path
from typing import Any
from urllib.parse import quote

sys.dont_write_bytecode = True
HERE = Path(__file__).resolve().parent
sys.path[:0] = [str(HERE), str(next(folder for folder in (HERE.parents[1] / "scripts", HERE.parent)
                                    if (folder / "devicelib").is_dir()))]

from aiohttp import web  # noqa: E402

from feeds import AGENT, Feed, Fleet, Watch, devices  # noqa: E402
from sources import Refused  # noqa: E402

POLICY = "default-src 'self'; img-src 'self' data:; base-uri 'none'; form-action 'none'; frame-ancestors 'none'"
HEADERS = {"Content-Security-Policy": POLICY, "X-Content-Type-Options": "nosniff", "Referrer-Policy": "no-referrer",
           "Cache-Control": "no-cache", "Cross-Origin-Resource-Policy": "same-origin"}


def is_own_host(request: web.Request) -> bool:
    """The address on which the request arrived, or localhost: a name of a foreign site may resolve to this machine."""
    own, port = request.transport.get_extra_info("sockname")[:2]
    names = {own, f"[{own}]"} | ({"localhost"} if ipaddress.ip_address(own).is_loopback else set())
    return request.headers.get("Host", "").removesuffix(f":{port}") in names


@web.middleware
async def guard(request: web.Request, handler: Any) -> web.StreamResponse:
    if not is_own_host(request):
        raise web.HTTPForbidden(text="this host name is not served here\n")
    if request.method not in ("GET", "HEAD"):
        origin = request.headers.get("Origin")
        if origin is not None and origin != f"http://{request.headers['Host']}":
            raise web.HTTPForbidden(text="another origin may not change anything here\n")
        if request.content_type != "application/json":  # a form of another site cannot send this type
            raise web.HTTPUnsupportedMediaType(text="application/json is required\n")
    return await handler(request)


async def harden(_: web.Request, response: web.StreamResponse) -> None:
    response.headers.update(HEADERS)


class Panel:
    def __init__(self, name: str | None) -> None:
        self.name = name
        self.fleet = Fleet()
        self.watches: dict[str, Watch] = {}

    def application(self) -> web.Application:
        application = web.Application(middlewares=[guard], client_max_size=1 << 16)
        application.on_response_prepare.append(harden)
        application.add_routes([
            web.get("/", self.page), web.get("/device/{name}", self.page), web.get("/events", self.events),
            web.get("/device/{name}/events", self.events), web.post("/device/{name}/{action}", self.click),
            web.static("/page", HERE / "page")])
        return application

    async def page(self, request: web.Request) -> web.StreamResponse:
        if self.name and request.path == "/":
            raise web.HTTPFound(f"/device/{quote(self.name, safe='')}")
        self._feed(request)
        return web.FileResponse(HERE / "page/index.html")

    def _feed(self, request: web.Request) -> Feed:
        """A panel of one device waits for it."""
        name = request.match_info.get("name", "")
        if not name and not self.name:
            return self.fleet
        if name != self.name if self.name else name not in self.watches and name not in devices():
            raise web.HTTPNotFound(text="no such device\n")
        return self.watches.setdefault(name, Watch(name, bool(self.name)))

    async def events(self, request: web.Request) -> web.StreamResponse:
        feed = self._feed(request)
        response = web.StreamResponse(headers={"Content-Type": "text/event-stream"})
        await response.prepare(request)
        with contextlib.suppress(ConnectionError):
            await feed.stream(response.write)
        return response

    async def click(self, request: web.Request) -> web.StreamResponse:
        feed, action = self._feed(request), request.match_info["action"]
        try:
            value = await request.json()
            if not is_action(action, value):
                raise ValueError("no such action")
            return web.json_response({"ok": True, "text": await feed.click(action, value)})
        except ValueError as error:
            raise web.HTTPBadRequest(text=f"{error}\n") from error
        except Refused as refusal:
            return web.json_response({"ok": False, "text": str(refusal)})


def is_action(action: str, value: Any) -> bool:
    if action == "talctl":
        return bool(value) and isinstance(value, list) and all(isinstance(word, str) for word in value)
    return isinstance(value, str) and (action == "scenario" or action == "agent" and value in AGENT)


async def serve(options: argparse.Namespace) -> None:
    runner = web.AppRunner(Panel(options.name).application(), access_log=None)
    await runner.setup()
    try:
        await web.TCPSite(runner, options.listen, options.port, shutdown_timeout=0.2).start()
    except OSError as error:
        sys.exit(f"panel: port {options.port}: {os.strerror(error.errno or 0)}")
    host = f"[{options.listen}]" if ":" in options.listen else options.listen
    print(f"panel: http://{host}:{options.port}/", flush=True)
    ended = asyncio.Event()
    if options.until_eof:  # the program that started it holds the other end
        asyncio.get_running_loop().add_reader(0, lambda: os.read(0, 4096) or ended.set())
    await ended.wait()
    await runner.cleanup()


def main() -> None:
    parser = argparse.ArgumentParser(description=__doc__)
    parser.add_argument("--port", type=int, default=8080)
    parser.add_argument("--listen", default="127.0.0.1",
                        help="another address than 127.0.0.1; anyone who reaches it can change the devices")
    parser.add_argument("--name", help="only this device; without it all that run")
    parser.add_argument("--until-eof", action="store_true", help="end when standard input is closed")
    with contextlib.suppress(KeyboardInterrupt):
        asyncio.run(serve(parser.parse_args()))


if __name__ == "__main__":
    main()
