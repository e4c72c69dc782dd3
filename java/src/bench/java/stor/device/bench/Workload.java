package stor.device.bench;

import java.io.IOException;
import java.util.List;
import java.util.function.Function;
import java.util.function.Supplier;
import java.util.stream.Stream;

/**
 * What is done to a new map before the time is taken, and while it is.
 *
 * @param contenders the maps that can do it
 * @param maker makes one of them
 * @param setUp fills it
 * @param batches what is timed; of several, each is served by a thread of its own
 */
record Workload(String name, List<Contender> contenders, Function<Contender, RangeMap> maker,
        Supplier<Stream<Operation>> setUp, List<List<Operation>> batches) {
    private static final List<Contender> ALL = List.of(Contender.values());

    /** Makes the workload of this name, of a size that is asked for. */
    static Workload named(String name, Options options) throws IOException {
        int ranges = options.ranges();
        Supplier<Stream<Operation>> filled = () -> Workloads.fill(ranges);
        return switch (name) {
            case "trace" -> alone(name, ALL, Stream::empty,
                    Workloads.trace(options.trace(), Workloads.SECTOR_SIZE));
            case "insert" -> alone(name, ALL, Stream::empty, filled.get().toList());
            case "overwrite" -> alone(name, ALL, filled, Workloads.overwrite(ranges));
            case "find" -> alone(name, ALL, filled, Workloads.find(ranges, 0));
            case "floor" -> alone(name, Contender.NAVIGABLE, () -> Workloads.fillApart(ranges),
                    Workloads.floor(ranges));
            case "last" -> alone(name, Contender.NAVIGABLE, () -> Workloads.fillApart(ranges),
                    Workloads.last(ranges));
            case "readers-2" -> new Workload(name, Contender.NAVIGABLE, Contender::create, filled,
                    List.of(Workloads.find(ranges, 0), Workloads.find(ranges, 1)));
            case "mixed-2" -> new Workload(name, Contender.NAVIGABLE, Contender::createShared,
                    filled, List.of(Workloads.mixed(ranges, 0), Workloads.mixed(ranges, 1)));
            default -> throw new IllegalArgumentException("no case of this name: " + name);
        };
    }

    private static Workload alone(String name, List<Contender> contenders,
            Supplier<Stream<Operation>> setUp, List<Operation> timed) {
        return new Workload(name, contenders, Contender::create, setUp, List.of(timed));
    }

    boolean isShared() {
        return batches.size() > 1;
    }

    boolean isReadOnly() {
        return batches.stream().flatMap(List::stream).allMatch(Operation::isQuery);
    }

    /** Gives what is done to a map in all, one thread after the other. */
    Stream<Operation> operations() {
        return Stream.concat(setUp.get(), batches.stream().flatMap(List::stream));
    }
}
