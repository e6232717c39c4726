"""A tiny stock-keeping package: items, prices, and a printable report."""

from .models import Item, Warehouse
from .pricing import total_value

__all__ = ["Item", "Warehouse", "total_value"]
