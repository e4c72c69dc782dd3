package stor.device.replay;

import java.util.Arrays;
import java.util.List;
import java.util.Locale;
import java.util.regex.Matcher;
import java.util.regex.Pattern;
import stor.device.replay.Request.Kind;

/**
 * Understands the lines of a trace. What is wrong with a line comes as an {@link
 * IllegalArgumentException}. An object serves one trace: some formats keep what earlier lines said.
 */
abstract class TraceFormat {
    /** A device has its place among several, so its size is bounded. */
    static final long MAX_DEVICE_BYTES = 1L << 46;
    /** In the order in which they are tried. */
    private static final List<String> NAMES = List.of("plain", "msr", "cloud", "cloud-sectors",
            "cloudphysics", "spc", "blkparse", "fio");
    private static final long SECTOR = 512;
    private static final long SECOND = 1_000_000;
    private static final Pattern BLANKS = Pattern.compile("\\s+");

    private final String expected;

    /** What a line says: a request and the device that it goes to. */
    record Entry(String device, Request request) {
    }

    private TraceFormat(String expected) {
        this.expected = expected;
    }

    static List<String> names() {
        return NAMES;
    }

    /** Makes the format of a name; the header is the line of names before the first, or null. */
    static TraceFormat named(String name, String header, char action) {
        return switch (name) {
            case "plain" -> new Plain();
            case "msr" -> new Msr();
            case "cloud" -> new Cloud();
            case "cloud-sectors" -> new CloudSectors();
            case "cloudphysics" -> new CloudPhysics(header);
            case "spc" -> new Spc();
            case "blkparse" -> new Blkparse(action);
            case "fio" -> new Fio();
            default -> throw new IllegalArgumentException("--format: '" + shown(name)
                    + "' (expected: " + String.join(", ", NAMES) + ")");
        };
    }

    /** Tells the format by the first line after the header, which may be null. */
    static TraceFormat of(String line, String header, char action) {
        IllegalArgumentException reason = new IllegalArgumentException("'" + shown(line)
                + "' (expected: a line of one of the formats " + String.join(", ", NAMES) + ")");
        boolean isClose = false;
        for (String name : NAMES) {
            try {
                named(name, header, action).parse(line);
                return named(name, header, action);
            } catch (UnexpectedShape e) {
                // Another one.
            } catch (IllegalArgumentException e) {
                reason = isClose ? reason : e;
                isClose = true;
            }
        }
        throw reason;
    }

    /** Tells whether a line has names where requests have numbers. */
    static boolean isHeader(String line) {
        return line.contains(",")
                && Arrays.stream(line.split(",")).noneMatch(name -> name.strip().matches("[-.0-9].*"));
    }

    /** Says what else to try if a trace turns out to hold no request. */
    String hint() {
        return "";
    }

    /** Gives what a line says, or null if it is right but no request. */
    abstract Entry parse(String line);

    /** A line of other fields than the format has. */
    private static final class UnexpectedShape extends IllegalArgumentException {
        private static final long serialVersionUID = 1L;

        UnexpectedShape(String message) {
            super(message);
        }
    }

    final IllegalArgumentException unexpected(String line) {
        return new UnexpectedShape("'" + shown(line) + "' (expected: " + expected + ")");
    }

    private static Entry entry(String device, Kind kind, long offset, long length, long micros) {
        return new Entry(device, new Request(kind, offset, length, micros));
    }

    private static long offset(String value, long unit) {
        return unit * number("offset", value, 0, MAX_DEVICE_BYTES / 2 / unit);
    }

    private static long length(String value, long unit) {
        return unit * number("length", value, 1, MAX_DEVICE_BYTES / 2 / unit);
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

    /** Reads seconds with any number of decimals as microseconds. */
    private static long seconds(String value) {
        int point = value.indexOf('.');
        long whole = number("time", point < 0 ? value : value.substring(0, point), 0,
                Long.MAX_VALUE / 2 / SECOND);
        if (point < 0) {
            return whole * SECOND;
        }
        String decimals = (value.substring(point + 1) + "000000").substring(0, 6);
        return whole * SECOND + number("time", decimals, 0, SECOND - 1);
    }

    private static Kind kind(String value, String read, String write) {
        if (value.equalsIgnoreCase(read)) {
            return Kind.READ;
        }
        if (value.equalsIgnoreCase(write)) {
            return Kind.WRITE;
        }
        throw new IllegalArgumentException("kind: '" + shown(value) + "' (expected: " + read
                + " or " + write + ")");
    }

    /** Makes any text fit for a terminal. */
    static String shown(String text) {
        String printable = text.replaceAll("[^ -~]", "?");
        return printable.length() <= 80 ? printable : printable.substring(0, 77) + "...";
    }

    /** The format of the trace that comes with the project. */
    private static final class Plain extends TraceFormat {
        Plain() {
            super("<microseconds> <R|W|D> <offset> <length>");
        }

        @Override
        Entry parse(String line) {
            String[] fields = BLANKS.split(line);
            if (fields.length != 4) {
                throw unexpected(line);
            }
            Kind kind = switch (fields[1]) {
                case "R" -> Kind.READ;
                case "W" -> Kind.WRITE;
                case "D" -> Kind.DISCARD;
                default -> throw new IllegalArgumentException(
                        "kind: '" + shown(fields[1]) + "' (expected: R, W or D)");
            };
            return entry("", kind, offset(fields[2], 1), length(fields[3], 1),
                    number("microseconds", fields[0], 0, Long.MAX_VALUE));
        }
    }

    /** Fields between commas. */
    private abstract static class Csv extends TraceFormat {
        private final int least;
        private final int most;

        Csv(String columns, int least, int most) {
            super(columns);
            this.least = least;
            this.most = most;
        }

        @Override
        final Entry parse(String line) {
            String[] fields = split(line);
            if (fields.length < least || fields.length > most) {
                throw unexpected(line);
            }
            return parse(fields);
        }

        abstract Entry parse(String[] fields);

        static String[] split(String line) {
            String[] fields = line.split(",", -1);
            for (int i = 0; i < fields.length; i++) {
                fields[i] = fields[i].strip();
            }
            return fields;
        }
    }

    /** Traces of servers: ticks of 100 ns, a host with numbered disks. */
    private static final class Msr extends Csv {
        Msr() {
            super("<time in 100 ns>,<host>,<disk>,<Read|Write>,<offset>,<length>,<response time>",
                    7, 7);
        }

        @Override
        Entry parse(String[] fields) {
            number("disk", fields[2], 0, Integer.MAX_VALUE);
            return entry(fields[1] + "." + fields[2], kind(fields[3], "Read", "Write"),
                    offset(fields[4], 1), length(fields[5], 1),
                    number("time", fields[0], 0, Long.MAX_VALUE) / 10);
        }
    }

    /** Traces of cloud volumes, in bytes and microseconds. */
    private static final class Cloud extends Csv {
        Cloud() {
            super("<device>,<R|W>,<offset>,<length>,<microseconds>", 5, 5);
        }

        @Override
        Entry parse(String[] fields) {
            return entry(fields[0], kind(fields[1], "R", "W"), offset(fields[2], 1),
                    length(fields[3], 1), number("time", fields[4], 0, Long.MAX_VALUE));
        }
    }

    /** Traces of cloud volumes, in sectors and seconds. */
    private static final class CloudSectors extends Csv {
        CloudSectors() {
            super("<seconds>,<first sector>,<sectors>,<0 to read, 1 to write>,<volume>", 5, 5);
        }

        @Override
        Entry parse(String[] fields) {
            return entry(fields[4], kind(fields[3], "0", "1"), offset(fields[1], SECTOR),
                    length(fields[2], SECTOR), seconds(fields[0]));
        }
    }

    /** Traces of virtual disks: the header, if there is one, says in which order the columns are. */
    private static final class CloudPhysics extends Csv {
        private final List<String> columns;

        CloudPhysics(String header) {
            super("version,time,op,lbn,size, in this order or that of a header", 5, 64);
            List<String> names = Arrays.asList(split(header == null ? "" : header.toLowerCase(
                    Locale.ROOT)));
            columns = names.contains("lbn") ? names
                    : List.of("version", "time", "op", "lbn", "size");
        }

        @Override
        Entry parse(String[] fields) {
            Kind kind = switch (field(fields, "op").toLowerCase(Locale.ROOT).replace("0x", "")) {
                case "28", "88" -> Kind.READ;
                case "2a", "8a" -> Kind.WRITE;
                default -> throw new IllegalArgumentException("op: '" + shown(field(fields, "op"))
                        + "' (expected: 28 or 88 to read, 2a or 8a to write)");
            };
            return entry("", kind, offset(field(fields, "lbn"), SECTOR),
                    length(field(fields, "size"), 1), seconds(field(fields, "time")));
        }

        private String field(String[] fields, String name) {
            int column = columns.indexOf(name);
            if (column < 0 || column >= fields.length) {
                throw unexpected(String.join(",", fields));
            }
            return fields[column];
        }
    }

    /** Traces of storage benchmarks; what follows the fifth field is ignored. */
    private static final class Spc extends Csv {
        Spc() {
            super("<unit>,<first sector>,<bytes>,<R|W>,<seconds>", 5, 64);
        }

        @Override
        Entry parse(String[] fields) {
            return entry(fields[0], kind(fields[3], "R", "W"), offset(fields[1], SECTOR),
                    length(fields[2], 1), seconds(fields[4]));
        }
    }

    /**
     * What {@code blkparse} prints. A request shows up in several lines, one for each action that
     * the kernel took; those of one action are read.
     */
    private static final class Blkparse extends TraceFormat {
        private static final Pattern START = Pattern.compile("\\d+,\\d+");
        private static final Pattern SUMMARY =
                Pattern.compile("(CPU\\d+|Total) \\(.*\\):|Throughput \\(.*|Events \\(.*|Skips: .*");

        private final String action;
        private boolean ended;

        Blkparse(char action) {
            super("<major>,<minor> <cpu> <sequence> <time> <pid> <action> <rwbs> <first sector>"
                    + " + <sectors> [<process>]");
            this.action = String.valueOf(action);
        }

        @Override
        Entry parse(String line) {
            // Figures of the whole run come last.
            ended |= SUMMARY.matcher(line).matches();
            if (ended) {
                return null;
            }
            String[] fields = BLANKS.split(line);
            if (fields.length < 6 || !START.matcher(fields[0]).matches()) {
                throw unexpected(line);
            }
            if (!fields[5].equals(action)) {
                return null;
            }
            if (fields.length < 10 || !fields[8].equals("+")) {
                // A flush, say, has no sectors.
                return null;
            }
            Kind kind = kind(fields[6]);
            return kind == null || fields[9].equals("0") ? null : entry(fields[0], kind,
                    offset(fields[7], SECTOR), length(fields[9], SECTOR), seconds(fields[3]));
        }

        @Override
        String hint() {
            return " with action " + action + "; --action names another";
        }

        /** Gives null for what neither reads nor writes. */
        private static Kind kind(String letters) {
            if (letters.contains("D")) {
                return Kind.DISCARD;
            }
            if (letters.contains("W")) {
                return Kind.WRITE;
            }
            return letters.contains("R") ? Kind.READ : null;
        }
    }

    /** The logs that fio writes and replays, of version 2 or 3. Each file is a device. */
    private static final class Fio extends TraceFormat {
        private static final Pattern START = Pattern.compile("fio version ([23]) iolog");

        private int version;
        private long waited;

        Fio() {
            super("<file> <read|write|trim> <offset> <length>, in version 3 after <milliseconds>");
        }

        @Override
        Entry parse(String line) {
            Matcher start = START.matcher(line);
            if (start.matches()) {
                version = Integer.parseInt(start.group(1));
                return null;
            }
            if (version == 0) {
                throw new UnexpectedShape("'" + shown(line)
                        + "' (expected: fio version 2 iolog, or 3, before all)");
            }
            String[] fields = BLANKS.split(line);
            int first = version - 2;
            if (fields.length < first + 2) {
                throw unexpected(line);
            }
            long micros = first == 0 ? waited
                    : 1000 * number("milliseconds", fields[0], 0, Long.MAX_VALUE / 1000);
            return parse(line, Arrays.copyOfRange(fields, first, fields.length), micros);
        }

        private Entry parse(String line, String[] fields, long micros) {
            Kind kind = switch (fields[1]) {
                case "read" -> Kind.READ;
                case "write" -> Kind.WRITE;
                case "trim" -> Kind.DISCARD;
                case "add", "open", "close", "sync", "datasync", "wait" -> null;
                default -> throw unexpected(line);
            };
            if (fields[1].equals("wait") && fields.length > 2) {
                waited += number("microseconds", fields[2], 0, Integer.MAX_VALUE);
            }
            if (kind == null) {
                return null;
            }
            if (fields.length != 4) {
                throw unexpected(line);
            }
            return entry(fields[0], kind, offset(fields[2], 1), length(fields[3], 1), micros);
        }
    }
}
