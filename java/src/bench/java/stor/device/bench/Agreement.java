package stor.device.bench;

import java.util.ArrayList;
import java.util.EnumMap;
import java.util.List;
import java.util.Map;
import java.util.function.Consumer;
import java.util.stream.Stream;
import stor.device.replay.Difference;
import stor.device.skiplist.FileLocation;
import stor.device.skiplist.MappedRange;
import stor.device.skiplist.Visitor;

/**
 * Holds all maps against the native methods: every answer while they get the same operations, and
 * their contents afterwards. A map that stores other ranges has to know the same place of each
 * byte; that is told for ranges of whole sectors.
 */
final class Agreement {
    private final String workload;
    private final Map<Contender, RangeMap> maps = new EnumMap<>(Contender.class);

    private Agreement(String workload) {
        this.workload = workload;
        for (Contender contender : Contender.values()) {
            maps.put(contender, contender.create());
        }
    }

    /**
     * Gives all maps the same operations.
     *
     * @return how many ranges the native methods hold afterwards
     * @throws Difference if a map differs
     */
    static int check(String workload, Stream<Operation> operations) {
        Agreement agreement = new Agreement(workload);
        operations.forEach(agreement::apply);
        int ranges = agreement.compareContents();
        agreement.maps.values().forEach(RangeMap::close);
        return ranges;
    }

    private void apply(Operation operation) {
        if (!operation.isQuery()) {
            maps.values().forEach(map -> operation.applyTo(map, null));
            return;
        }
        List<MappedRange> expected = answer(Contender.NATIVE, operation);
        List<MappedRange> cut = cut(expected, operation.offset(), operation.length());
        for (Contender contender : maps.keySet()) {
            compare(contender, answer(contender, operation),
                    contender.hasSameRanges() ? expected : cut);
        }
    }

    private int compareContents() {
        List<MappedRange> expected = list(maps.get(Contender.NATIVE)::forEach);
        maps.forEach((contender, map) -> compare(contender, list(map::forEach), expected));
        return expected.size();
    }

    private void compare(Contender contender, List<MappedRange> found, List<MappedRange> expected) {
        if (contender.hasSameRanges()) {
            compareAll(contender, found, expected);
        } else {
            compareAll(contender, stretches(found), stretches(expected));
        }
    }

    private void compareAll(
            Contender contender, List<MappedRange> found, List<MappedRange> expected) {
        for (int i = 0; i < Math.max(found.size(), expected.size()); i++) {
            MappedRange ours = i < found.size() ? found.get(i) : null;
            MappedRange theirs = i < expected.size() ? expected.get(i) : null;
            if (ours == null || !ours.equals(theirs)) {
                throw new Difference(workload + ": range " + i + " of " + contender, ours, theirs);
            }
        }
    }

    private List<MappedRange> answer(Contender contender, Operation query) {
        return list(visitor -> query.applyTo(maps.get(contender), visitor));
    }

    private static List<MappedRange> list(Consumer<Visitor> walk) {
        List<MappedRange> ranges = new ArrayList<>();
        walk.accept((offset, length, number, fileOffset, majorVer, minorVer, visited) ->
                ranges.add(new MappedRange(offset, length, false,
                        new FileLocation(number, fileOffset, majorVer, minorVer))));
        return ranges;
    }

    private static List<MappedRange> cut(List<MappedRange> ranges, long offset, int length) {
        return ranges.stream().map(range -> {
            long start = Math.max(range.offset(), offset);
            long end = Math.min(range.end(), offset + length);
            return new MappedRange(start, (int) (end - start), false, range.location()
                    .plus(start - range.offset(), Workloads.SECTOR_SIZE));
        }).toList();
    }

    /** Joins all that lies side by side, on the device and in the file, however it is stored. */
    private static List<MappedRange> stretches(List<MappedRange> ranges) {
        List<MappedRange> stretches = new ArrayList<>();
        for (MappedRange range : ranges) {
            int last = stretches.size() - 1;
            if (last >= 0 && continues(range, stretches.get(last))) {
                MappedRange first = stretches.get(last);
                stretches.set(last, new MappedRange(first.offset(),
                        Math.toIntExact(range.end() - first.offset()), false, first.location()));
            } else {
                stretches.add(new MappedRange(
                        range.offset(), range.len(), false, placeOf(range)));
            }
        }
        return stretches;
    }

    private static boolean continues(MappedRange range, MappedRange stretch) {
        FileLocation end = stretch.location().isEmpty() ? stretch.location()
                : stretch.location().plus(stretch.len(), Workloads.SECTOR_SIZE);
        return stretch.end() == range.offset() && placeOf(range).equals(end);
    }

    /** Gives where a range begins; a piece of an empty one lies nowhere, too. */
    private static FileLocation placeOf(MappedRange range) {
        FileLocation place = range.location();
        return place.majorVer() == -1 && place.minorVer() == -1 ? FileLocation.EMPTY : place;
    }
}
