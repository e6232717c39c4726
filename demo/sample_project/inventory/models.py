from dataclasses import dataclass, field

MAX_ITEMS = 500
DEFAULT_CURRENCY = "EUR"


@dataclass
class Item:
    sku: str
    name: str
    unit_price: float
    quantity: int = 0

    def value(self):
        return self.unit_price * self.quantity


@dataclass
class Warehouse:
    name: str
    items: list = field(default_factory=list)

    def add(self, item):
        if len(self.items) >= MAX_ITEMS:
            raise ValueError("warehouse is full")
        self.items.append(item)

    def find(self, sku):
        for item in self.items:
            if item.sku == sku:
                return item
        return None
