#include <VelaHost_Utility/Exception.h>
#include <VelaHost_Utility/Properties.h>

using namespace VelaHost_Utility;

// A program that lies at a fixed address may have an entry of its own for a library's function, and
// take that for the function's address.
int main()
{
    Properties store;
    store.AddProperty("name", 1U);
    try {
        store.AddProperty("name", 2U);
    } catch (const PropertiesException& e) {
        return e.GetContext().m_Logger == &DefaultExceptionLogger ? 0 : 1;
    }
    return 2;
}
