package stor.device.skiplist;

import static org.junit.jupiter.api.Assertions.assertEquals;
import static org.junit.jupiter.api.Assertions.assertNotNull;
import static org.junit.jupiter.api.Assertions.assertNull;
import static org.junit.jupiter.api.Assertions.assertThrows;
import static org.junit.jupiter.api.Assertions.assertTrue;

import io.netty.buffer.ByteBuf;
import io.netty.buffer.Unpooled;
import java.io.ByteArrayOutputStream;
import java.io.PrintStream;
import java.util.ArrayList;
import java.util.List;
import java.util.concurrent.FutureTask;
import java.util.function.Consumer;
import java.util.stream.Stream;
import org.junit.jupiter.api.AfterAll;
import org.junit.jupiter.api.Test;
import org.junit.jupiter.api.extension.ExtendWith;
import org.junit.jupiter.params.ParameterizedTest;
import org.junit.jupiter.params.provider.CsvSource;
import org.junit.jupiter.params.provider.EnumSource;
import org.junit.jupiter.params.provider.MethodSource;
import stor.device.skiplist.Verification.Pair;
import stor.device.skiplist.Verification.Profile;

/** Runs the random operations; shows that these and the checks of a map find what they should. */
@ExtendWith(LeakHunt.class)
class VerificationTest {
    private static final long SEED = Long.getLong("skiplist.test.seed", 42);
    private static final int SEEDS = 6;
    private static final VerifiedMap UNSEEN = new VerifiedMap.Native(4, 512);
    private static final FileLocation AT = new FileLocation(1, 0, 1, 1);

    // Side by side, on threads of their own, whose short stacks keep JNI warnings short.
    @ParameterizedTest
    @EnumSource
    void mapsAgreeWithTheirModelAfterEveryOperation(Profile profile) throws Exception {
        List<FutureTask<String>> runs = new ArrayList<>();
        for (int i = 0; i < SEEDS; i++) {
            long seed = SEED + i;
            runs.add(InThread.start(() -> Verifier.verify(new Verification(profile, seed))));
        }
        for (int i = 0; i < SEEDS; i++) {
            assertNull(InThread.join(runs.get(i)), "seed " + (SEED + i));
        }
    }

    @AfterAll
    static void closeUnseen() {
        UNSEEN.close();
    }

    @Test
    void eachOperationMayComeFromAnotherThread() throws Exception {
        try (Verification verification = new Verification(Profile.BUFFERS, SEED)) {
            for (int i = 0; i < 500; i++) {
                InThread.call(() -> {
                    verification.step();
                    return null;
                });
                verification.compare();
            }
        }
    }

    /** Changes a map or its model behind the other's back. */
    record Damage(String found, Consumer<Pair> change) {
        @Override
        public String toString() {
            return found;
        }
    }

    static Stream<Damage> damages() {
        return Stream.of(
                new Damage("range 2: MappedRange[offset=2000",
                        pair -> insert(pair.map(), 2000, 1)),
                new Damage("range 2: none", pair -> pair.model().insert(range(2000, 1), 0)),
                new Damage("range 0: MappedRange[offset=0, len=1,", pair -> pair.map().insert(
                        new MappedRange(0, 1, false, AT.plus(1, 512)), null)),
                new Damage("inserts: [2, 200, 300, 3]", pair -> insert(pair.map(), 0, 100)),
                new Damage("buffer of MappedRange[offset=1000, ", pair -> pair.map().release()),
                new Damage("from byte 99", pair -> pair.map().forEach((range, buffer) -> {
                    if (buffer != null) {
                        buffer.setByte(99, ~buffer.getByte(99));
                    }
                })),
                new Damage("references to the buffer of write 1: 2",
                        pair -> pair.map().copyTo(UNSEEN)));
    }

    @ParameterizedTest
    @MethodSource("damages")
    void everyKindOfDifferenceIsFound(Damage damage) {
        Verification verification = new Verification(Profile.NATIVE, SEED);
        try (verification) {
            verification.insert(verification.pair(), range(0, 100), false);
            verification.insert(
                    verification.pair(), new MappedRange(1000, 100, true, AT), true);
            verification.compare();
            damage.change().accept(verification.pair());
            AssertionError found = assertThrows(AssertionError.class, verification::compare);
            assertTrue(found.getMessage().contains(damage.found()), found.getMessage());
            UNSEEN.release();
        }
    }

    private static void insert(VerifiedMap map, long offset, int len) {
        map.insert(range(offset, len), null);
    }

    private static MappedRange range(long offset, int len) {
        return new MappedRange(offset, len, false, AT);
    }

    /** Ranges that no map should have, and what its check says. */
    record Unsound(String found, Consumer<InvariantCheck> ranges) {
        @Override
        public String toString() {
            return found;
        }
    }

    static Stream<Unsound> unsound() {
        ByteBuf released = Unpooled.buffer().writeZero(10);
        released.release();
        return Stream.of(
                new Unsound("len > 0", check -> check.range(range(0, 0), null)),
                new Unsound("before, 10", check -> {
                    check.range(range(0, 10), null);
                    check.range(range(9, 10), null);
                }),
                new Unsound("memory type", check -> check.range(
                        range(0, 10), Unpooled.buffer().writeZero(10))),
                new Unsound("of that length", check -> check.range(
                        new MappedRange(0, 10, true, AT), Unpooled.buffer().writeZero(9))),
                new Unsound("not released",
                        check -> check.range(new MappedRange(0, 10, true, AT), released)),
                new Unsound("size: 0", check -> {
                    check.range(range(0, 10), null);
                    check.end(0, 10);
                }),
                new Unsound("size: 1", check -> check.end(1, 0)),
                new Unsound("coveredBytes: 11", check -> {
                    check.range(range(0, 10), null);
                    check.end(1, 11);
                }));
    }

    @ParameterizedTest
    @MethodSource("unsound")
    void unsoundRangesAreReported(Unsound unsound) {
        AssertionError error = assertThrows(
                AssertionError.class, () -> unsound.ranges().accept(new InvariantCheck()));
        assertTrue(error.getMessage().startsWith("checkInvariants: ")
                && error.getMessage().contains(unsound.found()), error.getMessage());
    }

    @Test
    void theCheckOfAMapLooksAtItAll() {
        long map = JniSkipListNative.createSkipList(4, 512);
        ByteBuf buffer = Unpooled.buffer().writeZero(9);
        JniSkipListNative.insertWithBuff(map, 0, 10, 0, 1, 1, (byte) 1, buffer);
        assertThrows(AssertionError.class, () -> InvariantCheck.run(map));
        JniSkipListNative.insert(map, 0, 10, 0, 1, 1, (byte) 1);
        InvariantCheck.run(map);
        JniSkipListNative.destorySkipList(map);
        buffer.release();
    }

    @Test
    void theVerifierNamesTheSeedThatFails() {
        Verification verification = new Verification(Profile.LAYER, SEED);
        verification.pair().map().insert(range(0, 1), null);
        String difference = Verifier.verify(verification);
        assertNotNull(difference);
        assertTrue(difference.startsWith("operation 0: "), difference);
    }

    @ParameterizedTest
    @CsvSource({
        "--help, 0, usage: Verifier",
        "9223372036854775808, 2, '9223372036854775808' (expected",
        "-1, 2, '-1' (expected: a number from 0 to",
        "--operations, 2, (expected: up to",
        "--operations 1001 7, 0, 'PASS: 2000 operations, seeds 7 to 8, Java'",
        "0 -9223372036854775808, 0, PASS: 1000 operations"})
    void theVerifierTakesNumbers(String args, int status, String text) {
        ByteArrayOutputStream out = new ByteArrayOutputStream();
        assertEquals(status, Verifier.run(args.split(" "), new PrintStream(out, true)));
        assertTrue(out.toString().contains(text), out.toString());
    }
}
