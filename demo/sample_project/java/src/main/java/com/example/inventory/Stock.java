package com.example.inventory;

import java.util.ArrayList;
import java.util.List;

public class Stock {
    private final List<String> skus = new ArrayList<>();

    public void add(String sku) {
        skus.add(sku);
    }

    public int size() {
        return skus.size();
    }
}
