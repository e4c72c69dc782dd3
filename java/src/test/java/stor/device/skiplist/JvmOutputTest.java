package stor.device.skiplist;

import static org.junit.jupiter.api.Assertions.assertEquals;

import java.util.List;
import java.util.stream.Stream;
import org.junit.jupiter.api.Test;
import org.junit.jupiter.params.ParameterizedTest;
import org.junit.jupiter.params.provider.ValueSource;

/** The judge of all other tests' output must itself be able to say no. */
class JvmOutputTest {
    private static final String STACK_LINE =
            "\tat stor.device.skiplist.JniSkipListNative.insert(Native Method)";

    private final JvmOutput output = new JvmOutput();

    @Test
    void allowedWarningsAreLeftOutWithTheirStacks() {
        List<String> shown = Stream.of(
                "WARNING in native method: JNI call made without checking exceptions"
                        + " when required to from CallObjectMethod",
                STACK_LINE,
                "text WARNING in native method: JNI call made with exception pending",
                STACK_LINE, "other", "\tat Somewhere").map(output::show).filter(s -> s != null)
                .toList();
        assertEquals(List.of("text ", "other", "\tat Somewhere"), shown);
        assertEquals(List.of(2L, 0L), List.of(output.allowed(), output.forbidden()));
    }

    // Not named after its arguments: this test's own output is judged, too.
    @ParameterizedTest(name = "{index}")
    @ValueSource(strings = {
        "WARNING in native method: Wrong object class or methodID passed to JNI call",
        "text without line endWARNING in native method: Non-array passed to JNI array operations",
        "WARNING: JNI local refs: 33, exceeds capacity: 32",
        "FATAL ERROR in native method: Using JNIEnv in the wrong thread",
        "OpenJDK 64-Bit Server VM warning: something",
        "SEVERE: LEAK: ByteBuf.release() was not called before it's garbage-collected."
    })
    void anyOtherReportCounts(String line) {
        assertEquals(line, output.show(line));
        assertEquals(1, output.forbidden());
    }
}
