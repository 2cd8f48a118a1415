// Times the pi stability test for powers 16-20 with 1, 2 and 4 instances, next to a plain
// single-threaded Borwein iteration in GMP mpf at the same precision, and next to the
// Chudnovsky series with binary splitting, what one would pick for raw speed.
#include <gmp.h>

#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <vector>

#include "api/ErrorText.h"
#include "dapi/processor/StabilityTestObject.h"

namespace {

double seconds(std::chrono::steady_clock::time_point since) {
    return std::chrono::duration<double>(std::chrono::steady_clock::now() - since).count();
}

// The same recurrence, sequential, no comparison and no threads: the arithmetic's cost
// alone. Returns whether the digits match the stored checksum.
bool plainBorwein(int loops, long digits) {
    mpf_set_default_prec(static_cast<mp_bitcnt_t>(digits / 9 * 32 + 2));
    mpf_t x, xn, pi, pin, y, yn, sx, isx, xp1, yp1, ratio;
    mpf_t* all[] = {&x, &xn, &pi, &pin, &y, &yn, &sx, &isx, &xp1, &yp1, &ratio};
    for (mpf_t* v : all) mpf_init(*v);
    mpf_set_d(x, 2.0);
    mpf_sqrt(x, x);
    mpf_add_ui(pi, x, 2);
    mpf_sqrt(sx, x);
    mpf_set(y, sx);
    mpf_ui_div(isx, 1, sx);
    for (int loop = 1; loop < loops; ++loop) {
        mpf_add(xn, sx, isx);
        mpf_div_ui(xn, xn, 2);
        mpf_add_ui(xp1, xn, 1);
        mpf_add_ui(yp1, y, 1);
        mpf_div(ratio, xp1, yp1);
        mpf_mul(pin, pi, ratio);
        mpf_sqrt(sx, xn);
        mpf_ui_div(isx, 1, sx);
        mpf_mul(yn, y, sx);
        mpf_add(yn, yn, isx);
        mpf_div(yn, yn, yp1);
        mpf_set(x, xn);
        mpf_set(pi, pin);
        mpf_set(y, yn);
    }
    mpf_add(xn, sx, isx);
    mpf_div_ui(xn, xn, 2);
    mpf_add_ui(xp1, xn, 1);
    mpf_add_ui(yp1, y, 1);
    mpf_div(ratio, xp1, yp1);
    mpf_mul(pin, pi, ratio);
    std::vector<char> text(static_cast<size_t>(digits) + 100, '\0');
    mp_exp_t exponent;
    mpf_get_str(text.data(), &exponent, 10, static_cast<size_t>(digits), pin);
    for (mpf_t* v : all) mpf_clear(*v);
    return StabilityTestObject::validate_checksum(static_cast<int>(digits), text.data());
}

// Chudnovsky: pi = 426880 sqrt(10005) / sum, each term adding about 14.18 digits; the
// series is summed by binary splitting over integers.
struct Split {
    mpz_t p, q, t;
};

void chudnovskyRange(unsigned long a, unsigned long b, Split* out) {
    mpz_inits(out->p, out->q, out->t, nullptr);
    if (b - a == 1) {
        if (a == 0) {
            mpz_set_ui(out->p, 1);
            mpz_set_ui(out->q, 1);
        } else {
            mpz_set_ui(out->p, 6 * a - 5);
            mpz_mul_ui(out->p, out->p, 2 * a - 1);
            mpz_mul_ui(out->p, out->p, 6 * a - 1);
            mpz_set_ui(out->q, a);
            mpz_mul_ui(out->q, out->q, a);
            mpz_mul_ui(out->q, out->q, a);
            mpz_mul_ui(out->q, out->q, 10939058860032000UL);
        }
        mpz_set_ui(out->t, 545140134);
        mpz_mul_ui(out->t, out->t, a);
        mpz_add_ui(out->t, out->t, 13591409);
        mpz_mul(out->t, out->t, out->p);
        if (a & 1) mpz_neg(out->t, out->t);
        return;
    }
    const unsigned long m = (a + b) / 2;
    Split left, right;
    chudnovskyRange(a, m, &left);
    chudnovskyRange(m, b, &right);
    mpz_mul(out->p, left.p, right.p);
    mpz_mul(out->q, left.q, right.q);
    mpz_mul(out->t, left.t, right.q);
    mpz_addmul(out->t, left.p, right.t);
    mpz_clears(left.p, left.q, left.t, right.p, right.q, right.t, nullptr);
}

bool chudnovsky(long digits) {
    const unsigned long terms = static_cast<unsigned long>(digits / 14.181647462725477) + 2;
    Split s;
    chudnovskyRange(0, terms, &s);
    mpf_set_default_prec(static_cast<mp_bitcnt_t>(digits * 3.3219280948873626) + 64);
    mpf_t pi, root, t;
    mpf_inits(pi, root, t, nullptr);
    mpf_sqrt_ui(root, 10005);
    mpf_set_z(pi, s.q);
    mpf_mul_ui(pi, pi, 426880);
    mpf_mul(pi, pi, root);
    mpf_set_z(t, s.t);
    mpf_div(pi, pi, t);
    std::vector<char> text(static_cast<size_t>(digits) + 100, '\0');
    mp_exp_t exponent;
    mpf_get_str(text.data(), &exponent, 10, static_cast<size_t>(digits), pi);
    mpf_clears(pi, root, t, nullptr);
    mpz_clears(s.p, s.q, s.t, nullptr);
    return StabilityTestObject::validate_checksum(static_cast<int>(digits), text.data());
}

}  // namespace

int main(int argc, char** argv) {
    int lowest = 16, highest = 20;
    if (argc > 1) lowest = atoi(argv[1]);
    if (argc > 2) highest = atoi(argv[2]);
    printf("%-5s %-9s %-10s %10s %14s %8s\n", "power", "digits", "instances", "seconds",
           "digits/s", "result");
    for (int power = lowest; power <= highest; ++power) {
        const long digits = 1L << (power + 1);
        auto start = std::chrono::steady_clock::now();
        const bool plainOk = plainBorwein(power, digits);
        double t = seconds(start);
        printf("%-5d %-9ld %-10s %10.3f %14.0f %8s\n", power, digits, "plain", t, digits / t,
               plainOk ? "pass" : "FAIL");
        start = std::chrono::steady_clock::now();
        const bool chudOk = chudnovsky(digits);
        t = seconds(start);
        printf("%-5d %-9ld %-10s %10.3f %14.0f %8s\n", power, digits, "chudnovsky", t, digits / t,
               chudOk ? "pass" : "FAIL");
        fflush(stdout);
        for (int instances : {1, 2, 4}) {
            StabilityTestObject test("bench");
            test.setInstanceCount(instances);
            int passed = 0;
            start = std::chrono::steady_clock::now();
            ErrorMsg* e = test.PiCalculate(&passed, 0, power);
            t = seconds(start);
            if (e) {
                std::string text;
                getErrorMessage(e, &text);
                printf("%-5d %-9ld %-10d %s\n", power, digits, instances, text.c_str());
                continue;
            }
            printf("%-5d %-9ld %-10d %10.3f %14.0f %8s\n", power, digits, instances, t,
                   digits / t, passed == 1 && test.mismatchCount() == 0 ? "pass" : "FAIL");
            fflush(stdout);
        }
    }
    return 0;
}
