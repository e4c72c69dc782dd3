package stor.device.replay;

import java.util.HashMap;
import java.util.Map;
import stor.device.replay.TraceReader.Kind;
import stor.device.replay.TraceReader.Request;

/** Understands the lines of a trace; an {@link IllegalArgumentException} says what is wrong. */
abstract class TraceFormat {
    private static final int MAX_LENGTH = 1 << 28;
    private static final long MAX_DISK_BYTES = 1L << 42;

    private final String separator;
    private final String expected;
    private final int fields;

    private TraceFormat(String separator, String expected) {
        this.separator = separator;
        this.expected = expected;
        fields = expected.split(separator).length;
    }

    /** Tells the format by a line. */
    static TraceFormat of(String line) {
        return line.contains(",") ? new Csv() : new Own();
    }

    Request parse(String line) {
        String[] values = line.strip().split(separator, -1);
        if (values.length != fields) {
            throw new IllegalArgumentException(
                    "'" + shown(line) + "' (expected: " + expected + ")");
        }
        return parse(values);
    }

    abstract Request parse(String[] values);

    private static Request request(Kind kind, String offset, String length, int disk) {
        return new Request(kind,
                disk * MAX_DISK_BYTES + number("offset", offset, 0, MAX_DISK_BYTES - MAX_LENGTH),
                (int) number("length", length, 1, MAX_LENGTH));
    }

    private static long number(String name, String value, long min, long max) {
        try {
            long number = Long.parseLong(value);
            if (number >= min && number <= max) {
                return number;
            }
        } catch (NumberFormatException e) {
            // Reported below, in the words used for a number out of bounds.
        }
        throw new IllegalArgumentException(name + ": '" + shown(value)
                + "' (expected: a number from " + min + " to " + max + ")");
    }

    private static IllegalArgumentException unknown(String kind, String expected) {
        return new IllegalArgumentException(
                "kind: '" + shown(kind) + "' (expected: " + expected + ")");
    }

    /** Makes any text fit for a terminal. */
    private static String shown(String text) {
        String printable = text.replaceAll("[^ -~]", "?");
        return printable.length() <= 80 ? printable : printable.substring(0, 77) + "...";
    }

    /** The format of the trace that comes with the project. */
    private static final class Own extends TraceFormat {
        Own() {
            super(" ", "<microseconds> <R|W|D> <offset> <length>");
        }

        @Override
        Request parse(String[] values) {
            number("microseconds", values[0], 0, Long.MAX_VALUE);
            Kind kind = switch (values[1]) {
                case "R" -> Kind.READ;
                case "W" -> Kind.WRITE;
                case "D" -> Kind.DISCARD;
                default -> throw unknown(values[1], "R, W or D");
            };
            return request(kind, values[2], values[3], 0);
        }
    }

    /** The format of most public block traces. Every disk gets a part of the device of its own. */
    private static final class Csv extends TraceFormat {
        private final Map<String, Integer> disks = new HashMap<>();

        Csv() {
            super(",", "<timestamp in 100 ns>,<host>,<disk>,<Read|Write>,<offset>,<length>,"
                    + "<response time>");
        }

        @Override
        Request parse(String[] values) {
            number("timestamp", values[0], 0, Long.MAX_VALUE);
            number("disk", values[2], 0, Integer.MAX_VALUE);
            number("response time", values[6], 0, Long.MAX_VALUE);
            Kind kind = switch (values[3]) {
                case "Read" -> Kind.READ;
                case "Write" -> Kind.WRITE;
                default -> throw unknown(values[3], "Read or Write");
            };
            int disk = disks.computeIfAbsent(values[1] + "," + values[2], name -> disks.size());
            return request(kind, values[4], values[5], disk);
        }
    }
}
