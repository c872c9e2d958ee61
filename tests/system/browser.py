"""A page in a browser of a given width: how wide it gets there, and what sticks out."""

import html
import json
import os
import re
import shutil
import subprocess

BROWSER = shutil.which("chromium")

# In a frame of that width: a window has a least width of its own.
_FRAME = """<!DOCTYPE html><html><body style="margin:0"><iframe style="border:0" width="{width}" height="1000"
srcdoc="{page}"></iframe><pre id="measured"></pre><script>
const frame = document.querySelector("iframe");
frame.onload = () => {{
  const page = frame.contentDocument.documentElement;
  const out = [...page.querySelectorAll("*")].filter(one => one.getBoundingClientRect().right > {width} + 1);
  document.getElementById("measured").textContent = JSON.stringify({{
    width: page.scrollWidth, height: page.scrollHeight, out: out.map(one => one.outerHTML.slice(0, 80)).slice(0, 9),
    rows: page.querySelectorAll("tr:not(.head)").length}});
}};
</script></body></html>
"""


def measure(content, width, work):
    """Of a page's text: `width` and `height` that it takes, `rows` of its tables, and what is beyond its right end."""
    path = os.path.join(work, f"frame-{width}.html")
    with open(path, "w", encoding="utf-8") as file:
        file.write(_FRAME.format(width=width, page=html.escape(content)))
    done = subprocess.run([BROWSER, "--headless", "--no-sandbox", "--disable-gpu", "--disable-dev-shm-usage",
                           "--hide-scrollbars", f"--user-data-dir={work}/browser", "--window-size=1400,1100",
                           "--virtual-time-budget=5000", "--dump-dom", "file://" + path],
                          capture_output=True, text=True, timeout=120, check=True)
    return json.loads(html.unescape(re.search(r'<pre id="measured">(.*?)</pre>', done.stdout, re.S).group(1)))
