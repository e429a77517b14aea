#!/usr/bin/env python3
# SPDX-FileCopyrightText: 2026 The vornnet authors
# SPDX-License-Identifier: Apache-2.0
"""Draws the manual's diagrams: draw.py DIRECTORY"""
import html
import pathlib
import sys

INK, SOFT, PAPER = "#1f2d3d", "#5b6b7c", "#ffffff"
BLUE, GREEN, SAND, ROSE, GREY = "#dbe8f6", "#dff0e0", "#f8efd8", "#f8dfdc", "#eceff2"
STYLE = f"""text {{ font: 14px "DejaVu Sans", Verdana, sans-serif; fill: {INK}; }}
.small {{ font-size: 12px; }}
.label {{ font-size: 12px; fill: {SOFT}; paint-order: stroke; stroke: {PAPER}; stroke-width: 5px; }}
.bold {{ font-weight: bold; }}
.code {{ font: 14px "DejaVu Sans Mono", Menlo, Consolas, monospace; }}
.box {{ stroke: {INK}; stroke-width: 1.2; }}
.line {{ stroke: {INK}; stroke-width: 1.4; fill: none; }}
.dashed {{ stroke-dasharray: 5 4; }}
.flow {{ stroke: #2f6db5; stroke-width: 3; fill: none; }}
.life {{ stroke: {SOFT}; stroke-width: 1; }}
.grid {{ stroke: #d5dae0; }}"""


class Drawing:
    def __init__(self, title, width, height):
        self.title, self.width, self.height, self.parts = title, width, height, []

    def text(self, x, y, text, kind="", anchor="middle"):
        lines = text.split("\n")
        for number, line in enumerate(lines):
            self.parts.append(f'<text x="{x:g}" y="{y + 18 * number:g}" text-anchor="{anchor}" '
                              f'class="{kind}">{html.escape(line, quote=False)}</text>')

    def box(self, x, y, width, height, fill=PAPER, text="", kind="", radius=4, more=""):
        self.parts.append(f'<rect x="{x:g}" y="{y:g}" width="{width:g}" height="{height:g}" rx="{radius:g}" '
                          f'fill="{fill}" class="box {more}"/>')
        if text:
            rows = text.count("\n")
            self.text(x + width / 2, y + height / 2 + 5 - 9 * rows, text, kind)

    def line(self, points, label="", at=None, anchor="middle", arrow=True, dashed=False, kind="line"):
        path = "M" + " L".join(f"{x:g} {y:g}" for x, y in points)
        self.parts.append(f'<path d="{path}" class="{kind}{" dashed" if dashed else ""}"'
                          + (' marker-end="url(#arrow)"' if arrow else "") + "/>")
        if label:
            self.text(*at, label, "label", anchor)

    def write(self, path):
        body = "\n".join(self.parts)
        path.write_text(
            # In two pieces, or it would be taken for a mark of this file.
            "<!-- SPDX-FileCopyrightText: 2026 The vornnet authors -->\n<!-- SPDX-License" "-Identifier: Apache-2.0 -->\n"
            f'<svg xmlns="http://www.w3.org/2000/svg" viewBox="0 0 {self.width} {self.height}" '
            f'width="{self.width}" height="{self.height}" role="img">\n'
            f"<title>{html.escape(self.title, quote=False)}</title>\n<style>{STYLE}</style>\n"
            f'<defs><marker id="arrow" viewBox="0 0 10 10" refX="9" refY="5" markerWidth="11" markerHeight="11" markerUnits="userSpaceOnUse" '
            f'orient="auto-start-reverse"><path d="M0 0 L10 5 L0 10 z" fill="{INK}"/></marker></defs>\n'
            f'<rect width="100%" height="100%" fill="{PAPER}"/>\n{body}\n</svg>\n')


def byte_boxes(title, fields):
    """fields: (bytes as hex texts, what they are, fill)"""
    cell, top = 46, 12
    boxes = cell * sum(len(field[0]) for field in fields)
    width = 24 + max(boxes, 7 * len(fields[0][1]) if len(fields) == 1 else 0)
    drawing = Drawing(title, width, 86)
    x = (width - boxes) / 2
    for values, label, fill in fields:
        for value in values:
            drawing.box(x, top, cell, 34, fill, value, "code", radius=0)
            x += cell
        left, right, bottom = x - cell * len(values) + 3, x - 3, top + 40
        drawing.line([(left, bottom), (left, bottom + 6), (right, bottom + 6), (right, bottom)],
                     label, ((left + right) / 2, bottom + 24), arrow=False)
    return drawing


def road():
    drawing = Drawing("What happens to a notification", 860, 640)
    lanes = {"service": 130, "thread": 480, "callback": 720}
    drawing.box(30, 10, 200, 30, BLUE, "service process", "bold")
    drawing.box(360, 10, 480, 30, GREEN, "client process", "bold")
    drawing.box(50, 50, 160, 42, BLUE, "VornProxyDependent\na thread of the service", "small")
    drawing.box(390, 50, 180, 42, GREEN, "VornLibraryCallbackSink\nthe sink's thread", "small")
    drawing.box(630, 50, 180, 42, GREEN, "VornNotificationCallback\nof the client", "small")
    for lane in ("service", "thread", "callback"):
        drawing.line([(lanes[lane], 92), (lanes[lane], 625)], arrow=False, kind="life")

    def message(y, start, end, text, dashed=False):
        drawing.line([(lanes[start], y), (lanes[end], y)], text, ((lanes[start] + lanes[end]) / 2, y - 7), dashed=dashed)

    def step(y, lane, text, fill, height=28, width=210):
        drawing.box(lanes[lane] - width / 2, y, width, height, fill, text, "small")

    step(108, "thread", "the server waits", GREEN)
    step(108, "service", "remoteNotify()", BLUE)
    message(164, "service", "thread", "connect")
    message(196, "service", "thread", "long: the callback id")
    step(212, "thread", "receiveLong(), container locked, lookup()", SAND, width=270)
    message(266, "thread", "callback", "callback()")
    message(298, "service", "callback", "what addContent() writes")
    step(312, "callback", "doCallback() reads it", GREEN, width=180)
    message(370, "service", "callback", "end of the stream: remoteNotify() returns")
    step(384, "callback", "reads on to the end", GREEN, width=180)
    message(440, "callback", "thread", "returns; its event is set")
    step(456, "thread", "the server is closed, container unlocked", ROSE, width=270)
    drawing.box(345, 490, 270, 52, ROSE, "no server:\na sender is refused now, or lost", "small", more="dashed")
    step(550, "thread", "the server is opened again and waits", GREEN, width=270)
    drawing.line([(lanes["service"], 600), (345, 600)], "the next notification", (238, 593))
    return drawing


def objects():
    drawing = Drawing("The objects and their owners", 860, 450)
    drawing.box(15, 15, 520, 420, PAPER, radius=8)
    drawing.text(32, 38, "client process", "bold", "start")
    drawing.box(555, 15, 290, 420, PAPER, radius=8)
    drawing.text(572, 38, "service process", "bold", "start")

    drawing.box(40, 60, 210, 54, GREEN, "VornLibraryCallbackSink\nis a VornThread", "small")
    drawing.box(300, 60, 210, 54, GREEN, "VornCallbackContainer\nids and their callbacks", "small")
    drawing.line([(250, 87), (300, 87)], "has", (275, 80), arrow=False)
    drawing.box(300, 180, 210, 54, GREEN, "VornNotificationCallback\nis a VornEvent", "small")
    drawing.line([(405, 114), (405, 180)], "one pointer each", (412, 152), anchor="start")
    drawing.box(40, 180, 210, 54, SAND, "VornPipeServer or VornServer-\nSocket or VornUDPServerSocket", "small")
    drawing.line([(145, 114), (145, 180)], "smart pointer", (152, 152), anchor="start")
    drawing.box(40, 310, 210, 54, BLUE, "VornConnection\none for each notification", "small")
    drawing.line([(145, 234), (145, 310)], "waitForClient() makes it,\nthe caller owns it", (152, 276), anchor="start", dashed=True)
    drawing.line([(405, 234), (405, 329), (250, 329)], "reads from it in\ndoCallback()", (412, 300), anchor="start",
                 dashed=True)

    drawing.box(580, 60, 240, 54, BLUE, "VornProxyDependentContainer\none for each process", "small")
    drawing.box(580, 180, 240, 54, BLUE, "VornProxyDependent\ncallback address and id", "small")
    drawing.line([(700, 114), (700, 180)], "one pointer each", (707, 152), anchor="start")
    drawing.box(580, 310, 240, 54, BLUE, "VornConnection\nlocal to one remoteNotify()", "small")
    drawing.line([(700, 234), (700, 310)], "makes and destroys", (707, 276), anchor="start", dashed=True)
    drawing.line([(580, 352), (258, 352)], "bytes", (415, 372), kind="flow")
    drawing.line([(40, 405), (75, 405)], "owns", (83, 410), anchor="start")
    drawing.line([(150, 405), (185, 405)], "makes or uses", (193, 410), anchor="start", dashed=True)
    drawing.line([(310, 405), (345, 405)], "sends", (353, 410), anchor="start", kind="flow")
    return drawing


def server_life():
    drawing = Drawing("The life of a server", 860, 300)
    drawing.box(20, 120, 150, 56, GREY, "created\nno socket", "small", 22)
    drawing.box(345, 120, 170, 56, GREEN, "listening\nclients queue up", "small", 22)
    drawing.box(675, 120, 170, 56, SAND, "waiting\na thread is blocked", "small", 22)
    drawing.box(345, 230, 170, 56, GREY, "closed\nno socket", "small", 22)
    drawing.box(345, 12, 170, 56, ROSE, "exception\nfrom the wait", "small", 22)
    drawing.line([(170, 148), (345, 148)], "TCP, UDP: first wait\npipe: construction", (257, 120))
    drawing.line([(515, 138), (675, 138)], "waitForClient()", (595, 130))
    drawing.line([(675, 160), (515, 160)], "a client came", (595, 178))
    drawing.line([(465, 176), (465, 230)], "close()", (473, 208), anchor="start")
    drawing.line([(395, 230), (395, 176)], "the next wait", (387, 208), anchor="end")
    drawing.line([(760, 176), (760, 258), (515, 258)], "close() by another thread:", (637, 250))
    drawing.text(637, 277, "the wait returns null", "label")
    drawing.line([(95, 120), (95, 40), (345, 40)], "cannot bind", (220, 32))
    drawing.line([(760, 120), (760, 40), (515, 40)], "accept or select fails (pipe)", (637, 32))
    return drawing


def all_drawings():
    return {
        "road": road(),
        "objects": objects(),
        "server-life": server_life(),
        "bytes-short": byte_boxes("short -2", [(["ff", "fe"], "value, high byte first", BLUE)]),
        "bytes-int": byte_boxes("int 1", [(["00", "00", "00", "01"], "value, high byte first", BLUE)]),
        "bytes-long": byte_boxes("long 305419896", [
            (["12", "34", "56", "78"], "low 32 bits of the value", BLUE),
            (["00", "00", "00", "00"], "always zero, not looked at", GREY)]),
        "bytes-bool": byte_boxes("bool true", [(["00", "01"], "a short: 1 or 0", BLUE)]),
        "bytes-text": byte_boxes("text abc", [
            (["00", "00", "00", "03"], "length in bytes, an int", SAND), (["61", "62", "63"], "the bytes", BLUE)]),
        "bytes-ack": byte_boxes("acknowledgement", [
            (["00", "01"], "short 1", SAND), (["00", "00"], "short 0", GREEN)]),
        "bytes-error": byte_boxes("error", [
            (["00", "01"], "short 1", SAND), (["ff", "ff"], "short -1", ROSE)]),
        "bytes-service": byte_boxes("service svc", [
            (["73", "76", "63"], "name", BLUE), (["0d", "0a"], "CR LF", GREY)]),
        "bytes-notification": byte_boxes("a notification", [
            (["00", "00", "00", "07", "00", "00", "00", "00"], "long: the handle, 7", SAND),
            (["00", "00", "00", "0c", "00", "00", "00", "00"], "long: the id, 12, or what addContent() writes", BLUE)]),
    }


def main(arguments):
    folder = pathlib.Path(arguments[0])
    folder.mkdir(parents=True, exist_ok=True)
    for name, drawing in all_drawings().items():
        drawing.write(folder / f"{name}.svg")


if __name__ == "__main__":
    main(sys.argv[1:])
