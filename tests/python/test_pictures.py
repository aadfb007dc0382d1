"""The pictures of the tile layouts are those that the library's conversions give."""

import importlib.machinery
import importlib.util
import pathlib

import pytest

ROOT = pathlib.Path(__file__).resolve().parent.parent.parent
loader = importlib.machinery.SourceFileLoader("layout_pictures", str(ROOT / "docs/reference/layout_pictures"))
spec = importlib.util.spec_from_loader("layout_pictures", loader)
assert spec is not None
pictures = importlib.util.module_from_spec(spec)
loader.exec_module(pictures)


@pytest.mark.parametrize("layout", pictures.LAYOUTS, ids=lambda layout: layout[0])
def test_the_kept_picture_is_what_the_library_does(layout):
    name, *rest = layout
    kept = (ROOT / "docs/pictures" / f"layout_{name}.svg").read_text()
    assert pictures.picture(*rest) == kept, "scripts/docs draws the pictures anew"
