"""The documents: links lead somewhere, lines are readable in a terminal, and pictures show what their sources say."""

import html
import pathlib
import re

import pytest

ROOT = pathlib.Path(__file__).parents[2]
DOCUMENTS = sorted(path for pattern in ("*.md", "*/*.md") for path in ROOT.glob(pattern) if not path.parts[-2].startswith("build"))
PICTURES = sorted(ROOT.glob("docs/pictures/*.dot"))
LONGEST_LINE = 132


def name_of(path):
    return str(path.relative_to(ROOT))


def anchors(document):
    """GitHub's anchors of the headings."""
    titles = re.findall(r"^#+ (.*)$", document.read_text(encoding="utf-8"), re.M)
    return {re.sub(r"[^\w\- ]", "", title.lower()).replace(" ", "-") for title in titles}


@pytest.mark.parametrize("document", DOCUMENTS, ids=name_of)
def test_links_lead_somewhere(document):
    for target in re.findall(r"\]\(([^)]+)\)", document.read_text(encoding="utf-8")):
        path, _, anchor = target.partition("#")
        linked = (document.parent / path).resolve() if path else document
        assert linked.exists(), target
        assert not anchor or anchor in anchors(linked), target


@pytest.mark.parametrize("document", DOCUMENTS, ids=name_of)
def test_lines_of_text_are_short(document):
    is_code = False
    for number, line in enumerate(document.read_text(encoding="utf-8").splitlines(), 1):
        is_code ^= line.startswith("```")
        is_text = not is_code and not line.startswith(("    ", "|", "<"))
        assert len(line) <= LONGEST_LINE or not is_text, f"{document.name}:{number}"


@pytest.mark.parametrize("source", PICTURES, ids=name_of)
def test_a_picture_shows_the_texts_of_its_source(source):
    texts = re.findall(r"<text[^>]*>([^<]*)</text>", source.with_suffix(".svg").read_text(encoding="utf-8"))
    shown = " ".join(html.unescape(text).replace("\xa0", " ").strip() for text in texts)
    text = source.read_text(encoding="utf-8")
    labels = [line for label in re.findall(r'label="([^"]*)"', text) for line in label.split("\\n")]
    labels += re.findall(r">([^<>]*[^<>\s][^<>]*)<", "".join(re.findall(r"label=<(.*?)>\]", text, re.S)))
    assert labels
    for label in labels:
        assert label.strip() in shown, f"{label!r} is not in the picture: make pictures"
