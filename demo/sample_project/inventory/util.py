def round_money(amount):
    return round(amount + 0.0, 2)


def chunked(sequence, size):
    for start in range(0, len(sequence), size):
        yield sequence[start:start + size]
