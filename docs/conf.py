"""How Sphinx builds these pages; `make docs` does it, and takes a warning for an error."""

project = "decision_bounds"
extensions = ["myst_parser"]
myst_heading_anchors = 3  # links to headings are checked as links to pages are
html_theme = "furo"
html_title = project
html_copy_source = False
html_show_copyright = False
