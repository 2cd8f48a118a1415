// Times the pi stability test for powers 16-20 with 1, 2 and 4 instances, next to a plain
// single-threaded Borwein iteration in GMP mpf at the same precision.
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
