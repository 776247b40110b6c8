"""Takes the picture of the lab's page in docs/lab.png: a load, with one rejected request.

    /usr/bin/python3 -m tests.console.picture

It needs what packages/browser.txt and packages/plot.txt name.
"""

import base64
import io

from PIL import Image

from lab.common.tree import ROOT
from lab.console.console import Console
from tests.console.browser import Browser

PICTURE = ROOT / "docs/lab.png"
# The requests with points until the rejected one, which is the last but one.
_REQUESTS = 10


def main() -> None:
    with Console(port=0, provisioned=True) as console, Browser() as browser:
        device = console.device
        device.wait_for_access_token()
        browser.open(console.address)
        browser.press("load", rate="4", seconds="300")
        device.cloud.wait_for_answer("metrics", count=_REQUESTS, deadline=100)
        browser.press("answer", endpoint="metrics", times="1", act="answer", status="503")
        device.cloud.wait_for_answer("metrics", count=_REQUESTS + 2, deadline=60)
        browser.wait_for_text("[data-tile=cycle][data-level=good]", "answered 200")
        browser.run("arguments[0].closest('details').open = false;"
                    "document.getElementById('controls').scrollTop = 0",
                    browser.find("[data-control=answer]"))
        shot = browser.command("Page.captureScreenshot")["data"]
    # A third of the size of the browser's own.
    Image.open(io.BytesIO(base64.b64decode(shot))).quantize().save(PICTURE, optimize=True)


if __name__ == "__main__":
    main()
