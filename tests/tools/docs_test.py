#!/usr/bin/env python3
"""The code of the documents stands, line for line, in the example that is compiled and run."""

import sys
from pathlib import Path

ROOT = Path(__file__).resolve().parent.parent.parent
sources = [path.read_text() for path in sorted((ROOT / "examples" / "embed").glob("*.[ch]*"))]
blocks = strangers = 0
for document in ("README.md", "docs/embedding.md"):
    for block in (ROOT / document).read_text().split("```cpp\n")[1:]:
        code = block.split("```")[0]
        blocks += 1
        if not any(code in source for source in sources):
            strangers += 1
            print(f"{document}: not in examples/embed:\n{code}")
print(f"{blocks} blocks, {strangers} of them not in examples/embed")
sys.exit(1 if strangers or blocks < 5 else 0)
