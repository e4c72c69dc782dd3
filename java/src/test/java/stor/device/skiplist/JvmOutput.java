package stor.device.skiplist;

import java.util.List;

/**
 * Judges the output of a JVM that checks its native calls and its Netty buffers, line by line.
 *
 * <p>The library never asks whether an exception is pending: its results say so. Two kinds of
 * warnings follow from that and are allowed. They come by the thousand and are left out.
 */
final class JvmOutput {
    private static final String NATIVE_WARNING = "WARNING in native method: ";
    private static final List<String> ALLOWED = List.of(
            "JNI call made without checking exceptions when required to",
            "JNI call made with exception pending");
    private static final List<String> FORBIDDEN =
            List.of(NATIVE_WARNING, "WARNING: JNI", "FATAL ERROR", "VM warning:", "LEAK:");

    private boolean insideAllowed;
    private long allowed;
    private long forbidden;

    /** Takes a line of output; gives what of it is to be shown, or null. */
    String show(String line) {
        if (insideAllowed && (line.startsWith("\tat ") || line.startsWith("\t- "))) {
            return null;
        }
        int warning = line.indexOf(NATIVE_WARNING);
        insideAllowed = warning >= 0 && ALLOWED.stream().anyMatch(
                kind -> line.startsWith(kind, warning + NATIVE_WARNING.length()));
        if (insideAllowed) {
            allowed++;
            // The warning may follow, on the same line, a text that has no line end.
            return warning > 0 ? line.substring(0, warning) : null;
        }
        if (FORBIDDEN.stream().anyMatch(line::contains)) {
            forbidden++;
        }
        return line;
    }

    long allowed() {
        return allowed;
    }

    long forbidden() {
        return forbidden;
    }
}
