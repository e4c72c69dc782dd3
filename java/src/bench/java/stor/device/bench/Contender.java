package stor.device.bench;

import java.util.List;
import java.util.TreeMap;
import java.util.concurrent.ConcurrentSkipListMap;
import java.util.function.Supplier;

/** The maps that are compared. */
enum Contender {
    NATIVE("native methods", NativeRangeMap::new),
    LAYER("OffHeapRangeMap", LayerRangeMap::new),
    TREE("TreeMap", () -> new NavigableRangeMap(new TreeMap<>())),
    SKIP_LIST("ConcurrentSkipListMap", () -> new NavigableRangeMap(new ConcurrentSkipListMap<>())),
    GUAVA("TreeRangeMap", GuavaRangeMap::new);

    static final int HEIGHT = 12;

    /** Those that are asked for neighbours, and that several threads use. */
    static final List<Contender> NAVIGABLE = List.of(LAYER, TREE, SKIP_LIST);

    private final String name;
    private final Supplier<RangeMap> maker;

    Contender(String name, Supplier<RangeMap> maker) {
        this.name = name;
        this.maker = maker;
    }

    RangeMap create() {
        return maker.get();
    }

    /** Gives a map that several threads may change, by inserts of ranges that lie there already. */
    RangeMap createShared() {
        return switch (this) {
            case LAYER -> create();
            case TREE -> new LockedRangeMap(create());
            case SKIP_LIST -> new ConcurrentRangeMap();
            default -> throw new UnsupportedOperationException(name + ": several threads");
        };
    }

    boolean isOffHeap() {
        return this == NATIVE || this == LAYER;
    }

    /** Tells whether ranges are stored and listed as the library does, not only their bytes. */
    boolean hasSameRanges() {
        return this != GUAVA;
    }

    @Override
    public String toString() {
        return name;
    }
}
