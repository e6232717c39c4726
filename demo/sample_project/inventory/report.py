from .pricing import total_value
from .util import chunked

REPORT_STYLE = """
table.report { border-collapse: collapse; width: 100%; }
table.report td { padding: 4px 8px; border-bottom: 1px solid #ddd; }
"""


def render(warehouse, page_size=20):
    pages = []
    for page in chunked(warehouse.items, page_size):
        rows = "".join(f"<tr><td>{item.name}</td><td>{item.quantity}</td></tr>" for item in page)
        pages.append(f"<table class='report'>{rows}</table>")
    return f"<style>{REPORT_STYLE}</style>" + "".join(pages) + f"<p>{total_value(warehouse)}</p>"
