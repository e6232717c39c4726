from .models import DEFAULT_CURRENCY
from .util import round_money

VAT_RATE = 0.2


def net_value(warehouse):
    return round_money(sum(item.value() for item in warehouse.items))


def gross_value(warehouse):
    return round_money(net_value(warehouse) * (1 + VAT_RATE))


def total_value(warehouse, with_vat=True):
    amount = gross_value(warehouse) if with_vat else net_value(warehouse)
    return f"{amount:.2f} {DEFAULT_CURRENCY}"
