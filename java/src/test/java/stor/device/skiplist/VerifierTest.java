package stor.device.skiplist;

import static org.junit.jupiter.api.Assertions.assertEquals;
import static org.junit.jupiter.api.Assertions.assertTrue;

import java.nio.charset.StandardCharsets;
import java.util.List;
import java.util.function.Consumer;
import org.junit.jupiter.api.Test;
import org.junit.jupiter.params.ParameterizedTest;
import org.junit.jupiter.params.provider.MethodSource;

/** The verifier, as a user runs it and with a map that is not what it should be. */
class VerifierTest {
    @Test
    void itPassesWithTheJarAndNettyOnly() throws Exception {
        Process jvm = StrictJvm.start(List.of("-cp", System.getProperty("skiplist.test.user.path"),
                Verifier.class.getName(), "1", "42"));
        String output = new String(jvm.getInputStream().readAllBytes(), StandardCharsets.UTF_8);
        assertEquals(0, jvm.waitFor(), output);
        assertTrue(output.startsWith("PASS: "), output);
    }

    static List<Consumer<OffHeapRangeMap>> damages() {
        return List.of(
                map -> map.insert(0, 64, new FileLocation(1, 1, 1, 1)),
                OffHeapRangeMap::release,
                map -> map.forEach((o, l, n, f, major, minor, range) -> {
                    if (range.buffer() != null) {
                        range.buffer().setByte(0, range.buffer().getByte(0) + 1);
                    }
                }));
    }

    @ParameterizedTest
    @MethodSource("damages")
    void itReportsAMapThatWasChangedBehindItsBack(Consumer<OffHeapRangeMap> damage) {
        try (Verification verification = new Verification(42)) {
            for (int i = 0; i < 200; i++) {
                verification.step();
                verification.compare();
            }
            damage.accept(verification.map());
            String difference = Verifier.verify(verification);
            assertTrue(difference != null && difference.startsWith("operation 0: "), difference);
        }
    }
}
