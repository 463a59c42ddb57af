"""A browser loads a page of many parts through mivo and reports what it has received."""

import hashlib
import json
import struct
import subprocess
import zlib

import pytest

from clients import ENVIRONMENT
from upstreams import end
from wire import until

IMAGES, STYLES, SCRIPTS = 24, 6, 8
START_TIME = 60  # seconds; a browser starts slowly on a busy machine


def png(width, height):
    """A grey picture of a given size."""
    def chunk(kind, data):
        return struct.pack(">I", len(data)) + kind + data + struct.pack(">I", zlib.crc32(kind + data))
    rows = (b"\0" + bytes(range(256))[:width]) * height
    return (b"\x89PNG\r\n\x1a\n" + chunk(b"IHDR", struct.pack(">IIBBBBB", width, height, 8, 0, 0, 0, 0))
            + chunk(b"IDAT", zlib.compress(rows, 0)) + chunk(b"IEND", b""))


PAGE = """<!doctype html><html><head><meta charset="utf-8"><link rel="icon" href="data:,">
{styles}</head><body>
{images}
{boxes}
<script>var parts = [];</script>
{scripts}
<script>
addEventListener("load", async () => {{
  const digests = {{}};
  for (const name of {files}) {{
    const data = await (await fetch("/" + name)).arrayBuffer();
    const digest = new Uint8Array(await crypto.subtle.digest("SHA-256", data));
    digests[name] = Array.from(digest, (byte) => byte.toString(16).padStart(2, "0")).join("");
  }}
  const report = {{
    images: Array.from(document.images, (image) => [image.naturalWidth, image.naturalHeight]),
    styles: Array.from(document.querySelectorAll("p"), (box) => getComputedStyle(box).paddingLeft),
    scripts: parts, digests,
  }};
  await fetch("/report", {{method: "POST", body: JSON.stringify(report)}});
}});
</script></body></html>
"""


@pytest.fixture(scope="module")
def page(site):
    """Adds a page with images, styles and scripts to the site; returns the report that a browser has to send."""
    for i in range(IMAGES):
        (site.folder / f"image_{i}.png").write_bytes(png(10 + i, 2000 * i + 1))
    for i in range(STYLES):
        filler = f"/* {'x' * 30000 * i} */\n"
        (site.folder / f"style_{i}.css").write_text(f"{filler}#box_{i} {{ padding-left: {i + 1}px; }}\n")
    for i in range(SCRIPTS):
        (site.folder / f"script_{i}.js").write_text(f"// {'y' * 50000 * i}\nparts.push({i});\n")
    files = site.names[:40]
    (site.folder / "page.html").write_text(PAGE.format(
        styles="".join(f'<link rel="stylesheet" href="/style_{i}.css">' for i in range(STYLES)),
        images="".join(f'<img src="/image_{i}.png">' for i in range(IMAGES)),
        boxes="".join(f'<p id="box_{i}">' for i in range(STYLES)),
        scripts="".join(f'<script src="/script_{i}.js"></script>' for i in range(SCRIPTS)),
        files=json.dumps(files)))
    return {
        "images": [[10 + i, 2000 * i + 1] for i in range(IMAGES)],
        "styles": [f"{i + 1}px" for i in range(STYLES)],
        "scripts": list(range(SCRIPTS)),
        "digests": {name: hashlib.sha256(site.read(name)).hexdigest() for name in files},
    }


@pytest.fixture
def browse(start_mivo, folder):
    """browse(URL): opens a page in a browser that has its own profile."""
    started = []

    def open_page(url):
        with open(f"{folder}/browser_output", "wb") as output:
            started.append(subprocess.Popen(
                ["chromium", "--headless", "--no-sandbox", "--disable-gpu", "--disable-quic",
                 "--no-first-run", "--disable-background-networking", "--disable-component-update",
                 "--disable-sync", "--disable-dev-shm-usage", "--no-proxy-server",
                 f"--user-data-dir={folder}/profile", "--remote-debugging-port=0", url],
                env={**ENVIRONMENT, "HOME": folder}, stdin=subprocess.DEVNULL, stdout=output, stderr=output))

    yield open_page
    for browser in started:
        end(browser)


@pytest.mark.parametrize("host", ["127.0.0.1", "localhost"])
def test_page_with_images_styles_and_scripts__is_loaded_whole(
        start_mivo, python_site, page, browse, host):
    mivo = start_mivo({host + ":{port}": python_site.port})
    browse(f"http://{host}:{mivo.port}/page.html")
    until(lambda: python_site.posted, "the report of the browser", START_TIME)
    assert json.loads(python_site.posted[0]) == page
    assert any("Chrom" in line for line in mivo.requests())
