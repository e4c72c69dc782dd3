package stor.device.replay;

import java.util.Arrays;
import java.util.HashMap;
import java.util.Map;
import java.util.SortedMap;
import java.util.TreeMap;
import stor.device.replay.Request.Kind;

/**
 * What a trace asks for, by itself: requests and bytes by kind, how large its devices are, and how
 * fast requests come by the trace's own clock.
 */
final class TraceLoad {
    private static final long MINUTE = 60_000_000;
    private static final int MAX_MINUTES = 1 << 18;
    private static final int MAX_STEPS = 600;
    private static final int KINDS = Kind.values().length;

    private final Rate total = new Rate();
    private long[] deviceEnds = new long[1];
    private long first;
    private long earliest = Long.MAX_VALUE;
    private long latest = Long.MIN_VALUE;
    private final Map<Long, Rate> minutes = new HashMap<>();
    private final SortedMap<Long, Rate> steps = new TreeMap<>();
    private long stepMicros = 1_000_000;
    private boolean hasClock = true;

    /** What came within some time: requests and bytes by kind. */
    static final class Rate {
        private final long[] requests = new long[KINDS];
        private final long[] bytes = new long[KINDS];

        long requests() {
            return Arrays.stream(requests).sum();
        }

        long requests(Kind kind) {
            return requests[kind.ordinal()];
        }

        long bytes(Kind kind) {
            return bytes[kind.ordinal()];
        }

        /** Counts what is moved: a discard moves nothing. */
        long bytes() {
            return bytes(Kind.READ) + bytes(Kind.WRITE);
        }

        private void add(Request request) {
            requests[request.kind().ordinal()]++;
            bytes[request.kind().ordinal()] += request.length();
        }

        private Rate add(Rate other) {
            for (int i = 0; i < KINDS; i++) {
                requests[i] += other.requests[i];
                bytes[i] += other.bytes[i];
            }
            return this;
        }
    }

    /** Counts a request. */
    void add(Request request) {
        total.add(request);
        int device = (int) (request.offset() / TraceFormat.MAX_DEVICE_BYTES);
        if (device >= deviceEnds.length) {
            deviceEnds = Arrays.copyOf(deviceEnds, 2 * device);
        }
        long end = request.end() - device * TraceFormat.MAX_DEVICE_BYTES;
        deviceEnds[device] = Math.max(deviceEnds[device], end);
        addToClock(request);
    }

    /** Gives what came in all. */
    Rate total() {
        return total;
    }

    /** Sums up the ends of the highest requests to each device. */
    long deviceBytes() {
        return Arrays.stream(deviceEnds).sum();
    }

    /** Gives the time from the first request to the last by the trace's clock, 0 if it has none. */
    double seconds() {
        return hasClock && latest > earliest ? (latest - earliest) / 1e6 : 0;
    }

    /** Gives the most requests in a minute, counted from the first request. */
    long busiestMinuteRequests() {
        return minutes.values().stream().mapToLong(Rate::requests).max().orElse(0);
    }

    /** Gives the most bytes read and written in a minute, which may be another one. */
    long busiestMinuteBytes() {
        return minutes.values().stream().mapToLong(Rate::bytes).max().orElse(0);
    }

    /** Gives what came in each step of the trace's time, by the step's number; others are empty. */
    SortedMap<Long, Rate> steps() {
        return steps;
    }

    double stepSeconds() {
        return stepMicros / 1e6;
    }

    private void addToClock(Request request) {
        if (!hasClock) {
            return;
        }
        if (earliest > latest) {
            first = request.micros();
        }
        long since = request.micros() - first;
        earliest = Math.min(earliest, request.micros());
        latest = Math.max(latest, request.micros());
        minutes.computeIfAbsent(Math.floorDiv(since, MINUTE), minute -> new Rate()).add(request);
        steps.computeIfAbsent(Math.floorDiv(since, stepMicros), step -> new Rate()).add(request);
        while (steps.lastKey() - steps.firstKey() >= MAX_STEPS) {
            widenSteps();
        }
        if (minutes.size() > MAX_MINUTES) {
            // Half a year with requests in every minute, or no times at all.
            hasClock = false;
            minutes.clear();
            steps.clear();
        }
    }

    private void widenSteps() {
        SortedMap<Long, Rate> wider = new TreeMap<>();
        steps.forEach((step, rate) -> wider.merge(Math.floorDiv(step, 2), rate, Rate::add));
        steps.clear();
        steps.putAll(wider);
        stepMicros *= 2;
    }
}
