"""Tables in Markdown, and documents whose measured parts are renewed."""

import re


def table(header, rows):
    return "\n".join(["| " + " | ".join(row) + " |" for row in
                      [header, ["---"] + ["---:"] * (len(header) - 1)] + rows])


def renew(path, sections):
    """Renews the text between the marks of each section; all other text stays."""
    with open(path, encoding="utf-8") as file:
        text = file.read()
    for name, section in sections.items():
        mark = re.compile(rf"(<!-- measured: begin {name} -->\n).*?(<!-- measured: end {name} -->)", re.DOTALL)
        text, places = mark.subn(lambda found, section=section: f"{found[1]}{section}\n{found[2]}", text)
        if places != 1:
            raise SystemExit(f"bench: {path} has no one place for '{name}'")
    with open(path, "w", encoding="utf-8") as file:
        file.write(text)
    print(f"Wrote {path}")
